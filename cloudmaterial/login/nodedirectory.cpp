#include "cloudmaterial/login/nodedirectory.h"

#include "cloudmaterial/protocol/ajsonex.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/themeimage.h"

#include <QLoggingCategory>

#include <exception>
#include <string_view>
#include <utility>

Q_LOGGING_CATEGORY(lcNodes, "rxcm.nodes", QtInfoMsg)

namespace talvor::cloudmaterial::nodedirectory {

namespace {

std::string lastPathComponent(const std::string &reference)
{
    const auto slash = reference.find_last_of('/');
    return slash == std::string::npos ? reference : reference.substr(slash + 1);
}

// The directory names flags by region; only these have local images. "us.png" is
// published under that name but the image is called icon_usa.png.
const char *localIconFor(const std::string &name)
{
    static const std::pair<const char *, const char *> table[] = {
        {"australia.png", "icon_australia.png"}, {"china.png", "icon_china.png"},
        {"europe.png", "icon_europe.png"},       {"us.png", "icon_usa.png"},
        {"india.png", "icon_india.png"},
    };
    for (const auto &[published, local] : table) {
        if (name == published)
            return local;
    }
    return nullptr;
}

void replaceAll(std::string &text, std::string_view from, std::string_view to)
{
    for (auto pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size()))
        text.replace(pos, from.size(), to);
}

} // namespace

std::vector<NodeEntry> download(HttpClientWrapper &http, const std::string &url)
{
    try {
        const HttpReply reply = http.get(url, {}, false);
        if (reply.body.empty())
            return {};
        // The directory publishes the label key as "zh-cn", which no record member can be named.
        std::string text = reply.body;
        replaceAll(text, "zh-cn", "zh_cn");
        NodesJson nodes;
        try {
            ajson::load_from_buff(nodes, text.c_str(), text.size());
        } catch (const std::exception &e) {
            // A half-read directory could offer a node without its host: take none of it.
            qCWarning(lcNodes) << "node directory not understood:" << e.what();
            return {};
        }
        for (auto &entry : nodes.cirro) {
            if (const char *local = localIconFor(lastPathComponent(entry.icon)))
                entry.icon = themeImagePath(QString::fromLatin1(local)).toStdString();
        }
        return std::move(nodes.cirro);
    } catch (const std::exception &e) {
        qCWarning(lcNodes) << "node directory download failed:" << e.what();
    }
    return {};
}

QString label(const NodeEntry &node, bool chinese)
{
    const std::string &preferred = chinese ? node.label.zh_cn : node.label.en;
    const std::string &other = chinese ? node.label.en : node.label.zh_cn;
    return QString::fromStdString(preferred.empty() ? other : preferred);
}

int indexOf(const std::vector<NodeEntry> &nodes, const QString &host, const QString &identity)
{
    int found = -1;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        if (QString::fromStdString(nodes[i].node) != host)
            continue;
        if (found < 0 || QString::fromStdString(nodes[i].key) == identity)
            found = int(i);
    }
    return found;
}

} // namespace talvor::cloudmaterial::nodedirectory
