#pragma once

#include "content.h"
#include "json.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace cloudsim {

// The accounts, media and loose files that this run of the cloud serves. Tests change the
// media at run time, so every access takes the lock.
class Scenario
{
public:
    struct Page
    {
        std::size_t count = 0; // all media of the account
        Json mediaList = Json::array(); // the requested slice
        Json status; // what the reply's "status" member holds
    };

    // Reads "accounts" and "files"; other top-level keys are left to their readers.
    // Throws std::invalid_argument naming what is wrong.
    void load(const Json &scenario);

    // The id of the account at index in "accounts": its "id", else 1001 + index.
    // Throws std::invalid_argument when "id" is not an integer.
    static std::int64_t accountId(const Json &account, std::size_t index);
    // Makes the account reachable by one more token (a login's fresh token). False when no
    // account has that id.
    bool addToken(std::int64_t id, const std::string &token);

    // "https://127.0.0.1:<port>": the start of the file and thumbnail addresses it fills in.
    void setBaseUrl(const std::string &url);

    bool hasAccount(const std::string &token) const;
    std::optional<Page> page(const std::string &token, std::size_t offset, std::size_t limit, bool newestFirst,
                             const std::string &search) const;
    // The body behind "/files/<relativePath>": a loose file by name, else a medium by the
    // first path segment (its mid). Null when there is none.
    std::shared_ptr<const Content> file(const std::string &relativePath) const;
    // Runtime change of one account's media; returns a summary. Throws std::invalid_argument.
    Json changeMedia(const Json &change);

    static std::string urlEncode(const std::string &text);

private:
    struct Media
    {
        std::string mid;
        Json fields; // as the scenario wrote them, without "file"
        std::shared_ptr<const Content> content;
    };
    struct Account
    {
        std::vector<std::string> tokens; // the scenario's, then those of logins
        std::optional<std::int64_t> id; // none for accounts made by a media change
        std::vector<Media> media; // creation order: the last is the newest
        Json status = "success";
    };

    static Media parseMedia(const Json &j);
    static std::vector<Media> parseMediaList(const Json &j);
    Json record(const Media &m) const;
    Account *findAccount(const std::string &token);
    const Account *findAccount(const std::string &token) const;

    mutable std::mutex m_mutex;
    std::string m_baseUrl;
    std::vector<Account> m_accounts;
    std::map<std::string, std::shared_ptr<const Content>> m_files;
};

} // namespace cloudsim
