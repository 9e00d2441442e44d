#include "cloudmaterial/cloudmateriallist/medialistrequest.h"

#include "cloudmaterial/logging.h"
#include "cloudmaterial/protocol/gateway.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"

#include <exception>

namespace talvor::cloudmaterial {

const char *const mediaListQuery =
    "Rest/Lite/Medias?search=&offset=0&limit=50&tag=&filters%5Btype%5D%5B0%5D=1&filters%5Btype%5D%5B1%5D=0"
    "&filters%5Btype%5D%5B3%5D=30&sortType=desc";

MediaListResult requestMediaList(HttpClientWrapper &http, const std::string &token, const std::string &gatewayHost,
                                 bool logReply)
{
    const HttpReply reply =
        http.get(gateway::catalogueUrl(gatewayHost, mediaListQuery), gateway::headersWithToken(token), logReply);

    MediaListReply parsed;
    try {
        ajson::load_from_buff(parsed, reply.body.c_str(), reply.body.size());
    } catch (const std::exception &e) {
        // The records read before the fault may be half-filled: none of them is a material.
        RXCM_LOG_WARN("catalogue reply unreadable: {}", e.what());
        return {};
    }
    return {parsed.data.count, std::move(parsed.data.mediaList), reply.ok};
}

} // namespace talvor::cloudmaterial
