#include "support/hostprocess.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTest>

#include <cstdio>

namespace {
const char *const sanitizerMarkers[] = {"ERROR: AddressSanitizer", "runtime error:", "LeakSanitizer"};
} // namespace

QStringList sanitizerReports(const QByteArray &errors)
{
    QStringList found;
    for (const char *marker : sanitizerMarkers) {
        if (errors.contains(marker))
            found << QLatin1String(marker);
    }
    return found;
}

HostProcess::HostProcess()
{
    QObject::connect(&process, &QProcess::readyReadStandardOutput, &process, [this] { readOutput(); });
    QObject::connect(&process, &QProcess::readyReadStandardError, &process,
                     [this] { errorText += process.readAllStandardError(); });
}

HostProcess::~HostProcess()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(10000);
    }
}

bool HostProcess::start(const QString &program, const QStringList &arguments, const QString &workingDirectory)
{
    process.setWorkingDirectory(workingDirectory);
    process.start(program, arguments);
    // A sanitized host on a loaded machine takes a while to map its libraries.
    return process.waitForStarted(30000)
        && QTest::qWaitFor([this] { return said.contains(QStringLiteral("ready")); }, 60000);
}

void HostProcess::send(const QStringList &commands)
{
    process.write((commands.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8());
}

bool HostProcess::run(const QString &command, int timeoutMs)
{
    const QString done = QStringLiteral("done ") + command;
    const int before = said.count(done);
    send({command});
    // A host that has gone will not answer: no point waiting out the time.
    const auto answered = [&] { return said.count(done) > before; };
    return QTest::qWaitFor([&] { return answered() || process.state() == QProcess::NotRunning; }, timeoutMs)
        && answered();
}

QStringList HostProcess::names()
{
    if (!run(QStringLiteral("names")))
        return {};
    const QStringList answers = said.filter(QRegularExpression(QStringLiteral("^names( |$)")));
    return answers.last().mid(6).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

bool HostProcess::quit(qint64 *elapsedMs)
{
    QElapsedTimer clock;
    clock.start();
    send({QStringLiteral("quit")});
    const bool ended = process.waitForFinished(60000);
    *elapsedMs = clock.elapsed();
    readOutput();
    errorText += process.readAllStandardError();
    return ended;
}

QStringList HostProcess::lines(const QString &prefix) const
{
    return said.filter(QRegularExpression(QLatin1Char('^') + QRegularExpression::escape(prefix)));
}

void HostProcess::dumpErrors() const
{
    int from = qMax(0, errorText.size() - 8000);
    for (const char *marker : sanitizerMarkers)
        from = errorText.contains(marker) ? qMin(from, errorText.indexOf(marker)) : from;
    std::fprintf(stderr, "----- host stderr -----\n%s\n-----\n", errorText.mid(from).constData());
}

void HostProcess::readOutput()
{
    outputBuffer += process.readAllStandardOutput();
    int newline;
    while ((newline = outputBuffer.indexOf('\n')) >= 0) {
        said << QString::fromUtf8(outputBuffer.left(newline));
        outputBuffer.remove(0, newline + 1);
    }
}
