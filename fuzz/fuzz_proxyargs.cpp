// libFuzzer target for the argument lists of the proxy calls. Any bytes must unpack, into
// every layout the calls use, without a crash, a leak or an allocation out of proportion to
// the input; and what was unpacked must pack and unpack again to the same arguments.

#include "cloudmaterial/multimachine/proxycodec.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>

namespace {

template<typename... Args>
void check(const char *data, std::size_t size)
{
    using talvor::cloudmaterial::proxycodec::pack;
    using talvor::cloudmaterial::proxycodec::unpack;
    const std::tuple<Args...> first = unpack<Args...>(data, size);
    const msgpack::sbuffer again = std::apply([](const Args &...args) { return pack(args...); }, first);
    if (unpack<Args...>(again.data(), again.size()) != first) {
        std::fprintf(stderr, "arguments changed on a second round\n");
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Nearly every input is a mismatch; writing each one out would be all the fuzzer does.
    PW::SpdlogApplication::instance().logger()->set_level(spdlog::level::off);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    const char *data = reinterpret_cast<const char *>(bytes);
    check<>(data, size);
    check<std::string>(data, size);
    check<std::string, std::string, bool>(data, size);
    check<std::string, std::string, std::string, bool>(data, size);
    return 0;
}
