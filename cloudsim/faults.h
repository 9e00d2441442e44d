#pragma once

#include "json.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace cloudsim {

// One misbehaviour of the cloud, chosen by the scenario or at run time (docs/protocol.md).
struct Fault
{
    enum class Kind { Hang, Status, ErrorBody, DropAfter, WrongLength, Slow };

    Kind kind = Kind::Status;
    std::string path; // matched against the request path (no query)
    bool prefix = false; // path is a prefix rather than the whole path
    std::string method; // empty: any method
    int remaining = -1; // uses left; -1 without limit

    int status = 404; // Status
    std::string body; // Status, ErrorBody
    std::string contentType; // Status, ErrorBody
    std::uint64_t bytes = 0; // DropAfter: body bytes sent before the close
    std::optional<std::uint64_t> length; // WrongLength: the announced Content-Length
    std::int64_t delta = 0; // WrongLength: announced = real + delta, when no length
    std::uint64_t bytesPerSecond = 0; // Slow

    // True for the kinds that shape how a normal reply is sent rather than replace it.
    bool shapesStream() const;
    Json toJson() const;
    // Throws std::invalid_argument naming what is wrong.
    static Fault fromJson(const Json &j);
};

class FaultList
{
public:
    // Adds one fault (an object) or several (an array); nothing is added if any is invalid.
    void add(const Json &j);
    void clear();
    // The first fault that matches, with one use consumed.
    std::optional<Fault> take(const std::string &method, const std::string &path);
    Json toJson() const;
    std::size_t size() const;

private:
    mutable std::mutex m_mutex;
    std::vector<Fault> m_faults;
};

} // namespace cloudsim
