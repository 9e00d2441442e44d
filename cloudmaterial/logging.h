#pragma once

#include <pwspdlog/spdlogapplication.h>

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <string>
#include <string_view>

namespace talvor::cloudmaterial::logging {

/** Where a log line was written from; filled in by the RXCM_LOG_* macros. */
struct SourceLocation
{
    const char *file;
    const char *function;
    int line;
};

/** " \n //<file base name>:<function>()#<line>." — the suffix every module log line carries. */
std::string locationSuffix(const SourceLocation &where);

/** The file's name without folders and extension, as the suffix names it. */
std::string_view baseName(std::string_view path);

/**
 * False once the module has torn down at exit: the host's logging service may be destroyed
 * before the module's last objects, so nothing is written through it after that.
 */
bool isEnabled();
/** Called by the module's teardown; any thread may log until then. */
void disable();

template<typename... Args>
void write(spdlog::level::level_enum level, const SourceLocation &where, fmt::format_string<Args...> format,
           Args &&...args)
{
    if (!isEnabled())
        return;
    const auto logger = PW::SpdlogApplication::instance().logger();
    if (!logger->should_log(level))
        return;
    std::string text = fmt::format(format, std::forward<Args>(args)...);
    text += locationSuffix(where);
    logger->log(level, text);
}

} // namespace talvor::cloudmaterial::logging

#define RXCM_HERE                                                                                                      \
    ::talvor::cloudmaterial::logging::SourceLocation                                                                   \
    {                                                                                                                  \
        __FILE__, __func__, __LINE__                                                                                   \
    }
#define RXCM_LOG_INFO(...) ::talvor::cloudmaterial::logging::write(spdlog::level::info, RXCM_HERE, __VA_ARGS__)
#define RXCM_LOG_WARN(...) ::talvor::cloudmaterial::logging::write(spdlog::level::warn, RXCM_HERE, __VA_ARGS__)
#define RXCM_LOG_ERROR(...) ::talvor::cloudmaterial::logging::write(spdlog::level::err, RXCM_HERE, __VA_ARGS__)
