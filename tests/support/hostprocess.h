#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

/** The sanitizer reports (AddressSanitizer, LeakSanitizer, UndefinedBehaviorSanitizer) found in @p errors. */
QStringList sanitizerReports(const QByteArray &errors);

/**
 * A host process driven line by line: commands go to its stdin, its answers and the façade's
 * signals come back as lines on its stdout ("ready" once it can take commands, "done <command>"
 * after each). Lives on the test's thread.
 */
class HostProcess
{
public:
    HostProcess();
    ~HostProcess();
    HostProcess(const HostProcess &) = delete;
    HostProcess &operator=(const HostProcess &) = delete;

    bool start(const QString &program, const QStringList &arguments, const QString &workingDirectory);
    void send(const QStringList &commands);
    /** Sends @p command and waits until it is done. */
    bool run(const QString &command, int timeoutMs = 60000);
    /** The names the panel lists, in its order. */
    QStringList names();
    /** Quits and waits for the end; @p elapsedMs is the time from the command to the end. */
    bool quit(qint64 *elapsedMs);

    int count(const QString &line) const { return said.count(line); }
    QStringList lines(const QString &prefix) const;
    QProcess::ExitStatus exitStatus() const { return process.exitStatus(); }
    int exitCode() const { return process.exitCode(); }
    QByteArray errors() const { return errorText; }
    /** Writes the host's stderr to ours, from the first sanitizer report or else its last lines. */
    void dumpErrors() const;

private:
    void readOutput();

    QProcess process;
    QByteArray outputBuffer;
    QStringList said;
    QByteArray errorText;
};
