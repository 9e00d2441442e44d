#pragma once

#include <spdlog/common.h>

#include <QStringList>

#include <memory>
#include <string>
#include <vector>

/**
 * Reads back what the module writes to the host's logger while the object lives.
 * Holds each line's level and text exactly as logged (without spdlog's pattern).
 */
class LogCapture
{
public:
    struct Line
    {
        spdlog::level::level_enum level;
        std::string text;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<Line> lines() const;
    /** The lines whose text starts with @p prefix. */
    std::vector<Line> linesStartingWith(const std::string &prefix) const;
    /** Every line's text without the location suffix (" \n //<file>:...") the module adds. */
    std::vector<std::string> messages() const;
    /** How many lines say exactly @p message, location suffix aside. */
    int count(const std::string &message) const;
    void clear();

private:
    class Sink;
    std::shared_ptr<Sink> m_sink;
};
