#include "cloudmaterial/logging.h"

namespace talvor::cloudmaterial::logging {

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
