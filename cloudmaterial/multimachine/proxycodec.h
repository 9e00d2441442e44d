#pragma once

// The argument lists of the proxy calls between the machines of a group: every call carries
// its arguments as one msgpack array. One packer and one unpacker serve both directions.

#include "cloudmaterial/logging.h"

#include <irxruntime/irxruntime.h>

#include <msgpack.hpp>

#include <cstdint>
#include <exception>
#include <string>
#include <tuple>
#include <utility>

namespace talvor::cloudmaterial::proxycodec {

/** The arguments as one msgpack array, strings as msgpack strings, bools as booleans. */
template<typename... Args>
msgpack::sbuffer pack(const Args &...args)
{
    msgpack::sbuffer buffer(8192);
    msgpack::pack(buffer, std::forward_as_tuple(args...));
    return buffer;
}

namespace detail {

// The payload comes from another machine: a hostile array header must not make the
// parser allocate room for billions of elements before it finds the bytes missing.
inline const msgpack::unpack_limit &limits()
{
    static const msgpack::unpack_limit limit(/*array*/ 32, /*map*/ 32, /*str*/ 64 * 1024 * 1024,
                                             /*bin*/ 64 * 1024 * 1024, /*ext*/ 64 * 1024 * 1024, /*depth*/ 8);
    return limit;
}

// Exact types only: msgpack's own conversion would also take a bin as a string.
inline void read(const msgpack::object &item, std::string &value)
{
    if (item.type != msgpack::type::STR)
        throw msgpack::type_error();
    value.assign(item.via.str.ptr, item.via.str.size);
}

inline void read(const msgpack::object &item, bool &value)
{
    if (item.type != msgpack::type::BOOLEAN)
        throw msgpack::type_error();
    value = item.via.boolean;
}

// A shorter array leaves the trailing arguments as they are; extra elements are ignored.
template<typename Tuple, std::size_t... I>
void readAll(const msgpack::object_array &array, Tuple &args, std::index_sequence<I...>)
{
    ((I < array.size ? read(array.ptr[I], std::get<I>(args)) : void()), ...);
}

} // namespace detail

/**
 * The arguments of one received call. A payload that is not an array of the right types is
 * logged and yields default arguments (empty strings, false), so the call still goes through.
 */
template<typename... Args>
std::tuple<Args...> unpack(const char *data, std::size_t size)
{
    try {
        // Strings are copied out before the handle goes, so they may point into the payload.
        const auto reference = [](msgpack::type::object_type, std::size_t, void *) { return true; };
        const msgpack::object_handle handle = msgpack::unpack(data, size, reference, nullptr, detail::limits());
        const msgpack::object &root = handle.get();
        if (root.type != msgpack::type::ARRAY)
            throw msgpack::type_error();
        std::tuple<Args...> args;
        detail::readAll(root.via.array, args, std::index_sequence_for<Args...>{});
        return args;
    } catch (const std::exception &) {
        RXCM_LOG_ERROR("unpack failed: Args not match!");
        return {};
    }
}

/** Packs the arguments and sends them as the call @p name. */
template<typename... Args>
void send(IRXRuntime &runtime, const std::string &name, const Args &...args)
{
    const msgpack::sbuffer buffer = pack(args...);
    runtime.sendMessage(name, buffer.data(), std::uint32_t(buffer.size()));
}

/** A channel handler that unpacks the call's arguments and hands them to @p receive. */
template<typename... Args, typename Receive>
IRXRuntime::MessageHandler receiver(Receive receive)
{
    return [receive](const char *data, std::uint32_t size) { std::apply(receive, unpack<Args...>(data, size)); };
}

} // namespace talvor::cloudmaterial::proxycodec
