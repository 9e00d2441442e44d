#include "cloudmaterial/protocol/gateway.h"

#include "cloudmaterial/protocol/httpclientwrapper.h"

#include <QLoggingCategory>

#include <exception>

Q_LOGGING_CATEGORY(lcGateway, "rxcm.gateway", QtInfoMsg)

namespace talvor::cloudmaterial::gateway {

namespace {

std::string urlOf(const std::string &host, std::string_view form, std::string_view tail)
{
    std::string url = "https://" + host;
    url.append(form).append(tail);
    return url;
}

} // namespace

std::string serviceUrl(const std::string &host, std::string_view servicePath)
{
    return urlOf(host, "/gateway/apis?cirro=", servicePath);
}

std::string catalogueUrl(const std::string &host, std::string_view query)
{
    return urlOf(host, "/gateway/cirro?cirro=", query);
}

HttpHeaders headers()
{
    return {{"source", source}, {"version", "V1.0.0"}};
}

HttpHeaders headersWithToken(const std::string &token)
{
    HttpHeaders list = headers();
    list.emplace_back("Token", token);
    list.emplace_back("Authorization", token);
    return list;
}

HttpReply authenticatedPost(HttpClientWrapper &http, const std::string &url, const std::string &body,
                            const std::string &token)
{
    try {
        return http.post(url, headersWithToken(token), body, false);
    } catch (const std::exception &e) {
        qCWarning(lcGateway) << "authenticated request failed:" << e.what();
    } catch (...) {
        qCWarning(lcGateway) << "authenticated request failed with an unknown exception";
    }
    return {};
}

} // namespace talvor::cloudmaterial::gateway
