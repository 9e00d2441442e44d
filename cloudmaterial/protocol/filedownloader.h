#pragma once

#include "cloudmaterial/protocol/downloadstatus.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <string>

namespace talvor::cloudmaterial {

/**
 * Fetches one file into a local path, blocking its caller until the transfer has ended.
 *
 * The bytes go to "<path>.temp", which is renamed to the path only on success. A failed
 * transfer leaves its partial ".temp" behind; a later download of the same path appends
 * to it and then fails the size check, so a broken file is never taken for a good one.
 * A stopped transfer is no failure of the file: it leaves no ".temp" behind.
 *
 * Used by one thread at a time, the one that calls download(), which must be able to run a
 * Qt event loop. Only the stop condition is for other threads to change.
 */
class FileDownloader : public QObject
{
    Q_OBJECT

public:
    FileDownloader();
    ~FileDownloader() override;

    /** Returns Successed or Failed. */
    DownloadStatus download(const std::string &url, const QString &path);

    /**
     * Asked before the request is sent and then every stopPollMs while the transfer runs, on
     * the downloading thread; it must be safe to call there (another thread makes it true).
     * Once it says true, the transfer is given up: nothing more is sent, a ".temp" it has
     * written to is removed, and download() returns Failed.
     */
    void setStopCondition(std::function<bool()> shouldStop);
    /** The last download() ended because the stop condition said so. */
    bool wasStopped() const;
    static constexpr int stopPollMs = 50;

    /** Makes @p folderPath and its parents; false (and a log line) when that fails. */
    static bool createFolder(const QString &folderPath);

Q_SIGNALS:
    /** Bytes written so far and the announced total (-1 when the server does not say). */
    void progress(qint64 received, qint64 total);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
