#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialjson.h"

#include <string>
#include <vector>

namespace talvor::cloudmaterial {

class HttpClientWrapper;

/** The newest 50 materials of an account, and how many it has in all. */
struct MediaListResult
{
    std::int32_t count = 0;
    std::vector<MediaInfo> media;
    /** The cloud answered the request (status 200, no error). */
    bool answered = false;
};

/** The catalogue path and query after "cirro=": first page, 50 media, newest first. */
extern const char *const mediaListQuery;

/**
 * Asks the node's gateway for the account's catalogue. A network failure or a reply that
 * cannot be read gives an empty result, like an empty catalogue; answered tells them apart.
 */
MediaListResult requestMediaList(HttpClientWrapper &http, const std::string &token, const std::string &gatewayHost,
                                 bool logReply);

} // namespace talvor::cloudmaterial
