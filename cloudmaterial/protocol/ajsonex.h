// The module's entry points for reading JSON: they never throw a parse error at the caller.
// Callers judge success by the record's content afterwards (an empty token, an empty list),
// which is how every reader in the module is written.
#pragma once

#include "ajson.hpp"

#include <QLoggingCategory>
#include <QMessageLogger>

#include <cstddef>
#include <exception>

namespace ajson {
namespace detail {

// Header-only, so the category lives in an inline function instead of Q_LOGGING_CATEGORY.
inline const QLoggingCategory &jsonLog()
{
    static const QLoggingCategory category("rxcm.json");
    return category;
}

} // namespace detail

// The file name of the log records is fixed: it is what the module's log readers look for.
// "{}" in the buffer message is kept on purpose; this line goes through Qt's stream logger.
template<typename T>
void load_from_buff_nothrow(T &record, const char *text, std::size_t length = 0)
{
    try {
        load_from_buff(record, text, length);
    } catch (const std::exception &e) {
        const QLoggingCategory &category = detail::jsonLog();
        if (category.isInfoEnabled()) {
            QMessageLogger("cloudmaterial/ajsonex", __LINE__, Q_FUNC_INFO, category.categoryName()).info()
                << "load from buff throw exception: e.what() is:{}" << e.what();
        }
    }
}

template<typename T>
void load_from_file_nothrow(T &record, const char *path)
{
    try {
        load_from_file(record, path);
    } catch (const std::exception &e) {
        const QLoggingCategory &category = detail::jsonLog();
        if (category.isInfoEnabled()) {
            QMessageLogger("cloudmaterial/ajsonex", __LINE__, Q_FUNC_INFO, category.categoryName()).info()
                << "load from file throw exception: e.what() is:" << e.what();
        }
    }
}

} // namespace ajson
