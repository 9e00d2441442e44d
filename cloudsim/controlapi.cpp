// The control API the tests drive (faults, media, codes, devices, gateway overrides, the device
// service, recorded requests); docs/protocol.md lists every endpoint.

#include "server_p.h"

#include "deviceservice.h"
#include "login.h"
#include "messaging.h"
#include "overrides.h"
#include "scenario.h"

#include <stdexcept>

namespace cloudsim {

Reply Server::Private::control(const httplib::Request &req)
{
    const std::string &path = req.path;
    const std::string &method = req.method;
    try {
        if (path == "/control/faults") {
            if (method == "POST")
                faults.add(parseBody(req));
            else if (method == "DELETE")
                faults.clear();
            else if (method != "GET")
                return plainStatus(405);
            return jsonReply(200, Json{{"faults", faults.toJson()}});
        }
        if (path == "/control/media") {
            if (method != "POST")
                return plainStatus(405);
            return jsonReply(200, scenario.changeMedia(parseBody(req)));
        }
        if (path == "/control/codes") {
            if (method != "GET")
                return plainStatus(405);
            return jsonReply(200, login.codes());
        }
        if (path == "/control/devices") {
            if (method != "GET")
                return plainStatus(405);
            return jsonReply(200, login.devices());
        }
        if (path == "/control/gateway") {
            if (method == "POST")
                overrides.set(parseBody(req));
            else if (method == "DELETE")
                overrides.clear();
            else if (method != "GET")
                return plainStatus(405);
            return jsonReply(200, overrides.toJson());
        }
        if (startsWith(path, "/control/mqtt"))
            return mqttControl(req);
        if (path == "/control/requests") {
            std::lock_guard<std::mutex> lock(logMutex);
            if (method == "DELETE")
                requestLog.clear();
            else if (method != "GET")
                return plainStatus(405);
            Json list = Json::array();
            for (const auto &entry : requestLog)
                list.push_back(entry);
            return jsonReply(200, list);
        }
    } catch (const std::invalid_argument &e) {
        return jsonReply(400, Json{{"code", 400}, {"msg", e.what()}});
    }
    return plainStatus(404);
}

Reply Server::Private::mqttControl(const httplib::Request &req)
{
    const std::string &path = req.path;
    const std::string &method = req.method;
    if (path == "/control/mqtt") {
        if (method == "POST") {
            const Json body = parseBody(req);
            if (!body.is_object())
                throw std::invalid_argument("the body must be an object");
            if (body.contains("answerBinding")) {
                if (!body.at("answerBinding").is_boolean())
                    throw std::invalid_argument("\"answerBinding\" must be a boolean");
                devices.setAnswerBinding(body.at("answerBinding").get<bool>());
            }
            if (body.contains("url")) {
                if (!body.at("url").is_string() || body.at("url").get<std::string>().empty())
                    throw std::invalid_argument("\"url\" must be a non-empty string");
                try {
                    devices.connect(body.at("url").get<std::string>());
                } catch (const std::runtime_error &e) {
                    return jsonReply(502, Json{{"code", 502}, {"msg", e.what()}});
                }
            }
        } else if (method == "DELETE") {
            devices.disconnect();
        } else if (method != "GET") {
            return plainStatus(405);
        }
        return jsonReply(200, devices.state());
    }
    if (path == "/control/mqtt/messages") {
        if (method == "DELETE")
            devices.clearMessages();
        else if (method != "GET")
            return plainStatus(405);
        return jsonReply(200, devices.messages());
    }
    if (path == "/control/mqtt/send") {
        if (method != "POST")
            return plainStatus(405);
        try {
            return jsonReply(200, devices.send(parseBody(req)));
        } catch (const std::runtime_error &e) {
            return jsonReply(502, Json{{"code", 502}, {"msg", e.what()}});
        }
    }
    if (path == "/control/mqtt/auth") {
        if (method == "POST")
            messaging.setControl(parseBody(req));
        else if (method == "DELETE")
            messaging.clear();
        else if (method != "GET")
            return plainStatus(405);
        return jsonReply(200, messaging.control());
    }
    return plainStatus(404);
}

} // namespace cloudsim
