#pragma once

#include "json.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace httplib {
struct Request;
}

namespace cloudsim {

class Content;

inline constexpr const char *jsonType = "application/json; charset=utf-8";

// What a route answers, before the faults decide how it travels.
struct Reply
{
    int status = 200;
    std::string contentType = jsonType;
    std::vector<std::pair<std::string, std::string>> headers;
    std::shared_ptr<const Content> content; // null: no body
    std::uint64_t offset = 0; // the window of content that is sent
    std::uint64_t length = 0;
};

const char *statusText(int status);
bool statusHasBody(int status);
Reply textReply(int status, std::string body, std::string contentType = jsonType);
Reply jsonReply(int status, const Json &j);
// A status with its standard JSON body ({"code", "msg"}), or none where HTTP has none.
Reply plainStatus(int status);
Reply cloudFailure(int code, const std::string &reason);
Reply contentReply(const httplib::Request &req, std::shared_ptr<const Content> content, const std::string &contentType);
// A control request's body; a body that is not JSON throws std::invalid_argument.
Json parseBody(const httplib::Request &req);
std::string dumpJson(const Json &j);
bool startsWith(const std::string &text, const std::string &prefix);
// The headers the client sent, as a JSON object (repeated ones joined with ", ").
Json headersOf(const httplib::Request &req);

} // namespace cloudsim
