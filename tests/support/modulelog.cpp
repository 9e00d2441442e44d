#include "support/modulelog.h"

#include <QRegularExpression>
#include <QString>

bool ModuleLog::is(const LogCapture::Line &line, const std::string &text, const char *where)
{
    const QString location = QString::fromLatin1(where);
    const QRegularExpression re(QRegularExpression::anchoredPattern(
        QRegularExpression::escape(QString::fromStdString(text)) + QStringLiteral(" \n //")
        + QRegularExpression::escape(location) + QStringLiteral("\\(\\)#\\d+\\.")));
    return re.match(QString::fromStdString(line.text)).hasMatch();
}

int ModuleLog::count(const LogCapture &log, const std::string &text, const char *where)
{
    int n = 0;
    for (const auto &line : log.lines())
        n += is(line, text, where);
    return n;
}

int ModuleLog::count(const LogCapture &log, spdlog::level::level_enum level, const std::string &text, const char *where)
{
    int n = 0;
    for (const auto &line : log.lines())
        n += line.level == level && is(line, text, where);
    return n;
}
