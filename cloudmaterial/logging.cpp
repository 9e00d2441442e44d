#include "cloudmaterial/logging.h"

#include <atomic>

namespace talvor::cloudmaterial::logging {

namespace {
std::atomic<bool> enabled{true};
}

bool isEnabled()
{
    return enabled.load(std::memory_order_acquire);
}

void disable()
{
    enabled.store(false, std::memory_order_release);
}

std::string_view baseName(std::string_view path)
{
    const auto slash = path.find_last_of("/\\");
    if (slash != std::string_view::npos)
        path.remove_prefix(slash + 1);
    const auto dot = path.find('.');
    if (dot != std::string_view::npos)
        path = path.substr(0, dot);
    return path;
}

std::string locationSuffix(const SourceLocation &where)
{
    return fmt::format(" \n //{}:{}()#{}.", baseName(where.file), where.function, where.line);
}

} // namespace talvor::cloudmaterial::logging
