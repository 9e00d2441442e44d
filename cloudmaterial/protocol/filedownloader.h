#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"

#include <QObject>
#include <QString>

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

/**
 * Fetches one file into a local path, blocking its caller until the transfer has ended.
 *
 * The bytes go to "<path>.temp", which is renamed to the path only on success. A failed
 * transfer leaves its partial ".temp" behind; a later download of the same path appends
 * to it and then fails the size check, so a broken file is never taken for a good one.
 * The calling thread must be able to run a Qt event loop.
 */
class FileDownloader : public QObject
{
    Q_OBJECT

public:
    FileDownloader();
    ~FileDownloader() override;

    /** Returns Successed or Failed. */
    DownloadStatus download(const std::string &url, const QString &path);

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
