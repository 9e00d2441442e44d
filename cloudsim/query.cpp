#include "query.h"

#include <algorithm>

namespace cloudsim {

std::string percentDecode(const std::string &text, bool plusIsSpace)
{
    auto hexValue = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else if (text[i] == '+' && plusIsSpace) {
            out += ' ';
        } else {
            out += text[i];
        }
    }
    return out;
}

// Splits at '&' and at the first '=' of each item. httplib's own parameter map cannot be
// used for the gateway: its value "Rest/Lite/Medias?search=" holds a '?' and a '='.
QueryItems parseQuery(const std::string &query)
{
    QueryItems items;
    std::size_t start = 0;
    while (start <= query.size()) {
        std::size_t end = query.find('&', start);
        if (end == std::string::npos)
            end = query.size();
        const std::string item = query.substr(start, end - start);
        if (!item.empty()) {
            const auto eq = item.find('=');
            items.emplace_back(percentDecode(item.substr(0, eq), true),
                               eq == std::string::npos ? std::string() : percentDecode(item.substr(eq + 1), true));
        }
        start = end + 1;
    }
    return items;
}

std::string queryValue(const QueryItems &items, const std::string &key, const std::string &fallback)
{
    for (const auto &[k, v] : items)
        if (k == key)
            return v;
    return fallback;
}

bool hasParam(const QueryItems &items, const std::string &key)
{
    return std::any_of(items.begin(), items.end(), [&key](const auto &item) { return item.first == key; });
}

bool isDecimal(const std::string &text)
{
    return !text.empty() && text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos;
}

// A catalogue size parameter: present and decimal, else nothing (the cloud has no defaults).
std::optional<std::size_t> sizeParam(const QueryItems &items, const std::string &key)
{
    const std::string text = queryValue(items, key);
    if (!hasParam(items, key) || !isDecimal(text))
        return std::nullopt;
    return static_cast<std::size_t>(std::stoul(text));
}

// The media type filter: one or more "filters[type][<n>]" with decimal values, nothing else
// under "filters".
bool validTypeFilter(const QueryItems &items)
{
    static const std::string prefix = "filters[type][";
    bool any = false;
    for (const auto &[key, value] : items) {
        if (key.rfind("filters", 0) != 0)
            continue;
        const std::string index = key.size() > prefix.size() + 1 && key.rfind(prefix, 0) == 0 && key.back() == ']'
            ? key.substr(prefix.size(), key.size() - prefix.size() - 1)
            : std::string();
        if (!isDecimal(index) || !isDecimal(value))
            return false;
        any = true;
    }
    return any;
}

// The client appends the service path and its query verbatim after "cirro=", so the
// service's own parameters arrive as parameters of the gateway URL. A client that encodes
// the whole value is understood too.
std::string gatewayService(const std::string &target, QueryItems *params)
{
    const auto question = target.find('?');
    const QueryItems outer = parseQuery(question == std::string::npos ? std::string() : target.substr(question + 1));
    const std::string cirro = queryValue(outer, "cirro");
    const auto inner = cirro.find('?');
    if (params) {
        *params = inner == std::string::npos ? QueryItems() : parseQuery(cirro.substr(inner + 1));
        for (const auto &item : outer)
            if (item.first != "cirro")
                params->push_back(item);
    }
    return cirro.substr(0, inner);
}

} // namespace cloudsim
