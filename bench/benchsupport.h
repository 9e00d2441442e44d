#pragma once

// Small pieces the Qt benchmarks share.

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QString>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace bench {

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

/** Adds "--name n", described as "<what> (default <n>).", to @p parser and returns it. */
inline QCommandLineOption addCountOption(QCommandLineParser &parser, const char *name, const char *what,
                                         int defaultValue)
{
    const QCommandLineOption option(QString::fromLatin1(name),
                                    QStringLiteral("%1 (default %2).").arg(QString::fromLatin1(what)).arg(defaultValue),
                                    QStringLiteral("n"), QString::number(defaultValue));
    parser.addOption(option);
    return option;
}

/** Prints the printf-style message and a line end to stderr; returns 1, a bench's exit code when it cannot run. */
[[gnu::format(printf, 1, 2)]] inline int fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    return 1;
}

} // namespace bench
