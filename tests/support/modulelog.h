#pragma once

#include "support/logcapture.h"

#include <string>

/**
 * The module's promised log lines as the test sink holds them: the text, then the location
 * suffix " \n //<file>:<function>()#<line>." of which only the line number is left open.
 */
class ModuleLog
{
public:
    /** @p where is "<file>:<function>", e.g. "logincontroller:phoneLogin". */
    static bool is(const LogCapture::Line &line, const std::string &text, const char *where);
    /** How many of @p log's lines are @p text from @p where. */
    static int count(const LogCapture &log, const std::string &text, const char *where);
    /** The same, of one level only. */
    static int count(const LogCapture &log, spdlog::level::level_enum level, const std::string &text,
                     const char *where);
};
