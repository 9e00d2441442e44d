#pragma once

// Small pieces the Qt benchmarks share.

#include <QCommandLineOption>
#include <QString>

#include <algorithm>
#include <vector>

namespace bench {

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

/** "--name n", described as "<what> (default <n>)." */
inline QCommandLineOption countOption(const char *name, const char *what, int defaultValue)
{
    return QCommandLineOption(QString::fromLatin1(name),
                              QStringLiteral("%1 (default %2).").arg(QString::fromLatin1(what)).arg(defaultValue),
                              QStringLiteral("n"), QString::number(defaultValue));
}

} // namespace bench
