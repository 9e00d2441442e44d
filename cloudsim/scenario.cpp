#include "scenario.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace cloudsim {
namespace {

std::shared_ptr<const Content> parseFile(const Json &j, const std::string &owner)
{
    if (!j.is_object())
        throw std::invalid_argument(owner + ": \"file\" must be an object");
    if (j.contains("text")) {
        if (!j.at("text").is_string())
            throw std::invalid_argument(owner + ": \"text\" must be a string");
        return textContent(j.at("text").get<std::string>());
    }
    if (j.contains("path")) {
        // A real file (a demo's picture, say), read once at start.
        if (!j.at("path").is_string())
            throw std::invalid_argument(owner + ": \"path\" must be a string");
        const std::string path = j.at("path").get<std::string>();
        std::ifstream in(path, std::ios::binary);
        if (!in)
            throw std::invalid_argument(owner + ": cannot read " + path);
        return textContent(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
    }
    if (j.contains("size")) {
        const auto &size = j.at("size");
        if (!size.is_number_unsigned() && !(size.is_number_integer() && size.get<std::int64_t>() >= 0))
            throw std::invalid_argument(owner + ": \"size\" must be a non-negative integer");
        return std::make_shared<PatternContent>(size.get<std::uint64_t>());
    }
    throw std::invalid_argument(owner + ": a file needs \"text\", \"path\" or \"size\"");
}

std::string hex128(const std::string &seed)
{
    std::uint64_t h = 1469598103934665603ULL;
    for (unsigned char ch : seed)
        h = (h ^ ch) * 1099511628211ULL;
    char text[33];
    std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(splitmix64(h)),
                  static_cast<unsigned long long>(splitmix64(h + 1)));
    return text;
}

} // namespace

std::string Scenario::urlEncode(const std::string &text)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char ch : text) {
        if ((ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') || ch == '-' || ch == '.'
            || ch == '_' || ch == '~') {
            out += static_cast<char>(ch);
        } else {
            out += '%';
            out += digits[ch >> 4];
            out += digits[ch & 15];
        }
    }
    return out;
}

Scenario::Media Scenario::parseMedia(const Json &j)
{
    if (!j.is_object())
        throw std::invalid_argument("a medium must be an object");
    if (!j.contains("mid") || !j.at("mid").is_string() || j.at("mid").get<std::string>().empty())
        throw std::invalid_argument("a medium needs a non-empty string \"mid\"");
    Media m;
    m.mid = j.at("mid").get<std::string>();
    m.fields = Json::object();
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (it.key() != "file")
            m.fields[it.key()] = it.value();
    }
    if (j.contains("file")) {
        m.content = parseFile(j.at("file"), "medium " + m.mid);
    } else {
        // Without a file the entity's size, when it is a plain number, says how much to make.
        std::uint64_t size = 1024;
        if (j.contains("media_entity") && j.at("media_entity").is_object()) {
            const auto &entity = j.at("media_entity");
            if (entity.contains("size") && entity.at("size").is_number_unsigned())
                size = entity.at("size").get<std::uint64_t>();
        }
        m.content = std::make_shared<PatternContent>(size);
    }
    return m;
}

std::vector<Scenario::Media> Scenario::parseMediaList(const Json &j)
{
    if (!j.is_array())
        throw std::invalid_argument("media must be an array");
    std::vector<Media> list;
    for (const auto &item : j)
        list.push_back(parseMedia(item));
    return list;
}

void Scenario::load(const Json &scenario)
{
    if (!scenario.is_object())
        throw std::invalid_argument("the scenario must be a JSON object");
    std::vector<Account> accounts;
    std::map<std::string, std::shared_ptr<const Content>> files;
    try {
        const Json list = scenario.value("accounts", Json::array());
        if (!list.is_array())
            throw std::invalid_argument("\"accounts\" must be an array");
        for (std::size_t i = 0; i < list.size(); ++i) {
            const Json &a = list[i];
            if (!a.is_object())
                throw std::invalid_argument("an account must be an object");
            // An account that only logs in gets its tokens from its logins.
            if (a.contains("token") && !a.at("token").is_string())
                throw std::invalid_argument("an account's \"token\" must be a string");
            Account account;
            if (a.contains("token"))
                account.tokens.push_back(a.at("token").get<std::string>());
            account.id = accountId(a, i);
            for (const auto &other : accounts)
                if (other.id == account.id)
                    throw std::invalid_argument("two accounts have the id " + std::to_string(*account.id));
            account.media = parseMediaList(a.value("media", Json::array()));
            if (a.contains("status"))
                account.status = a.at("status");
            accounts.push_back(std::move(account));
        }
        for (const auto &f : scenario.value("files", Json::array())) {
            if (!f.is_object() || !f.contains("name") || !f.at("name").is_string())
                throw std::invalid_argument("a file needs a string \"name\"");
            const auto name = f.at("name").get<std::string>();
            files[name] = parseFile(f, "file " + name);
        }
    } catch (const Json::exception &e) {
        throw std::invalid_argument(std::string("bad scenario: ") + e.what());
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_accounts = std::move(accounts);
    m_files = std::move(files);
}

std::int64_t Scenario::accountId(const Json &account, std::size_t index)
{
    if (!account.contains("id"))
        return 1001 + static_cast<std::int64_t>(index);
    if (!account.at("id").is_number_integer())
        throw std::invalid_argument("an account's \"id\" must be an integer");
    return account.at("id").get<std::int64_t>();
}

bool Scenario::addToken(std::int64_t id, const std::string &token)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto &a : m_accounts) {
        if (a.id == id) {
            if (std::find(a.tokens.begin(), a.tokens.end(), token) == a.tokens.end())
                a.tokens.push_back(token);
            return true;
        }
    }
    return false;
}

void Scenario::setBaseUrl(const std::string &url)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_baseUrl = url;
}

template<typename Accounts>
static auto *findIn(Accounts &accounts, const std::string &token)
{
    for (auto &a : accounts)
        if (!token.empty() && std::find(a.tokens.begin(), a.tokens.end(), token) != a.tokens.end())
            return &a;
    return static_cast<decltype(&accounts.front())>(nullptr);
}

Scenario::Account *Scenario::findAccount(const std::string &token)
{
    return findIn(m_accounts, token);
}

const Scenario::Account *Scenario::findAccount(const std::string &token) const
{
    return findIn(m_accounts, token);
}

bool Scenario::hasAccount(const std::string &token) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return findAccount(token) != nullptr;
}

Json Scenario::record(const Media &m) const
{
    std::string name = m.mid + ".bin";
    if (m.fields.contains("mediaName") && m.fields.at("mediaName").is_string())
        name = m.fields.at("mediaName").get<std::string>();
    const std::string thumb = m_baseUrl + "/thumbs/" + urlEncode(m.mid) + ".png";

    // The cloud's key order and value types: some numbers travel as strings, some not.
    Json entity = Json::object();
    entity["mid"] = m.mid;
    entity["size"] = m.content->size();
    entity["height"] = "1080";
    entity["width"] = "1920";
    entity["thumb_image_url"] = thumb;
    entity["unique"] = hex128(m.mid);
    entity["duration_time"] = 0;
    entity["video_support_platform"] = "";

    Json r = Json::object();
    r["mid"] = m.mid;
    r["oid"] = "10001";
    r["create_uid"] = 20001;
    r["approvalStatus"] = "2";
    r["mediaName"] = name;
    r["mediaType"] = 1;
    r["media_entity"] = nullptr; // keeps its place; filled below
    r["workgroup"] = 0;
    r["isMediaSupported"] = 1;
    r["ossDir"] = m_baseUrl + "/files/" + urlEncode(m.mid) + "/" + urlEncode(name);
    r["bigPictureAddress"] = thumb;
    r["pictureAddress"] = thumb;
    r["pictureDafaultAddress"] = thumb; // sic: the cloud's key

    // The scenario's fields win verbatim; an entity object is merged key by key.
    for (auto it = m.fields.begin(); it != m.fields.end(); ++it) {
        if (it.key() == "media_entity" && it.value().is_object()) {
            for (auto e = it.value().begin(); e != it.value().end(); ++e)
                entity[e.key()] = e.value();
        } else if (it.key() != "media_entity") {
            r[it.key()] = it.value();
        }
    }
    const bool entityReplaced = m.fields.contains("media_entity") && !m.fields.at("media_entity").is_object();
    r["media_entity"] = entityReplaced ? m.fields.at("media_entity") : entity;
    return r;
}

std::optional<Scenario::Page> Scenario::page(const std::string &token, std::size_t offset, std::size_t limit,
                                             bool newestFirst, const std::string &search) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Account *account = findAccount(token);
    if (!account)
        return std::nullopt;
    std::vector<const Media *> matching;
    for (const auto &m : account->media) {
        if (!search.empty()) {
            const auto &name = m.fields.contains("mediaName") ? m.fields.at("mediaName") : Json();
            if (!name.is_string() || name.get<std::string>().find(search) == std::string::npos)
                continue;
        }
        matching.push_back(&m);
    }
    if (newestFirst)
        std::reverse(matching.begin(), matching.end());
    Page page;
    page.count = matching.size();
    page.status = account->status;
    for (std::size_t i = offset; i < matching.size() && i - offset < limit; ++i)
        page.mediaList.push_back(record(*matching[i]));
    return page;
}

std::shared_ptr<const Content> Scenario::file(const std::string &relativePath) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (auto it = m_files.find(relativePath); it != m_files.end())
        return it->second;
    const std::string mid = relativePath.substr(0, relativePath.find('/'));
    for (const auto &account : m_accounts)
        for (const auto &m : account.media)
            if (m.mid == mid)
                return m.content;
    return nullptr;
}

Json Scenario::changeMedia(const Json &change)
{
    if (!change.is_object() || !change.contains("token") || !change.at("token").is_string())
        throw std::invalid_argument("a media change needs a string \"token\"");
    const std::string token = change.at("token").get<std::string>();
    try {
        // Parse everything before touching the state, so a bad change changes nothing.
        std::optional<std::vector<Media>> replacement;
        if (change.contains("media"))
            replacement = parseMediaList(change.at("media"));
        std::vector<Media> added;
        if (change.contains("add"))
            added = parseMediaList(change.at("add"));
        std::vector<std::string> removed;
        if (change.contains("remove"))
            removed = change.at("remove").get<std::vector<std::string>>();

        std::lock_guard<std::mutex> lock(m_mutex);
        Account *account = findAccount(token);
        if (!account) {
            m_accounts.push_back(Account{{token}, std::nullopt, {}, "success"});
            account = &m_accounts.back();
        }
        if (replacement)
            account->media = std::move(*replacement);
        for (const auto &mid : removed) {
            auto &list = account->media;
            list.erase(std::remove_if(list.begin(), list.end(), [&](const Media &m) { return m.mid == mid; }),
                       list.end());
        }
        // A known mid is updated in place (it keeps its age); a new one becomes the newest.
        for (auto &m : added) {
            auto it = std::find_if(account->media.begin(), account->media.end(),
                                   [&](const Media &known) { return known.mid == m.mid; });
            if (it != account->media.end())
                *it = std::move(m);
            else
                account->media.push_back(std::move(m));
        }
        if (change.contains("status"))
            account->status = change.at("status");
        return Json{{"token", token}, {"count", account->media.size()}};
    } catch (const Json::exception &e) {
        throw std::invalid_argument(std::string("bad media change: ") + e.what());
    }
}

} // namespace cloudsim
