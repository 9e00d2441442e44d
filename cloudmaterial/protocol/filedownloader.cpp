#include "cloudmaterial/protocol/filedownloader.h"

#include "cloudmaterial/logging.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <string_view>

Q_LOGGING_CATEGORY(lcDownload, "rxcm.download", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {
constexpr qint64 readBufferBytes = 64 * 1024;
// Progress is told when it has grown by this share of the total (and at the end), so a large
// file costs the receiver a few hundred updates rather than one per block.
constexpr qint64 progressSteps = 200;
constexpr qint64 progressBytesWithoutTotal = 1024 * 1024;
} // namespace

class FileDownloader::Private
{
public:
    explicit Private(FileDownloader *q)
        : q(q)
    {
    }

    DownloadStatus downloadFile(std::string_view url, const QString &tempPath);
    DownloadStatus handleResponse(QNetworkReply *reply, const QString &tempPath);
    bool stopRequested() const { return shouldStop && shouldStop(); }

    DownloadStatus giveUp(QNetworkReply *reply);
    void reportProgress(qint64 received, qint64 announcedTotal);

    FileDownloader *const q;
    QNetworkAccessManager manager;
    qint64 bytesWritten = 0;
    std::unique_ptr<QFile> output;
    std::function<bool()> shouldStop;
    bool stopped = false;
    // Read from the reply's headers at its first arrival: they do not change after that.
    bool statusChecked = false;
    qint64 total = -1;
    // What the output file holds, without asking the file system at every block.
    qint64 outputSize = 0;
    qint64 progressReported = -1;
};

DownloadStatus FileDownloader::Private::downloadFile(std::string_view url, const QString &tempPath)
{
    stopped = stopRequested();
    if (stopped)
        return Failed;
    QNetworkRequest request(QUrl::fromEncoded(QByteArray(url.data(), int(url.size()))));
    request.setRawHeader("Range", QStringLiteral("bytes=%1-").arg(bytesWritten).toLatin1());
    QNetworkReply *reply = manager.get(request);
    statusChecked = false;
    progressReported = -1;
    // A bounded buffer leaves bytes in the socket when the disk falls behind the network,
    // rather than letting the reply grow with the file. At 64 KiB the network thread hands
    // over whole 64 KiB blocks; the other sizes tried (16 KiB to 8 MiB) broke the transfer
    // into 4 KiB pieces and cost up to twice the CPU (bench/download_bench).
    reply->setReadBufferSize(readBufferBytes);
    DownloadStatus result = Failed;

    QEventLoop loop;
    // Every arrival decides the result; the last one counts.
    QObject::connect(reply, &QNetworkReply::readyRead, &loop, [&] { result = handleResponse(reply, tempPath); });
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    // Asked on this thread, so nothing is ever posted to a downloader that may be gone.
    QTimer stopPoll;
    stopPoll.setInterval(FileDownloader::stopPollMs);
    QObject::connect(&stopPoll, &QTimer::timeout, &loop, [&] {
        if (stopRequested()) {
            stopped = true;
            reply->abort();
            loop.quit();
        }
    });
    if (shouldStop)
        stopPoll.start();
    if (!reply->isFinished())
        loop.exec();
    stopPoll.stop();

    if (stopped) {
        qCInfo(lcDownload).nospace().noquote() << "download stopped: " << reply->url().toString();
        if (output) {
            output->close();
            output->remove();
            output.reset();
        }
        reply->deleteLater();
        return Failed;
    }
    // Bytes that arrived together with the end of the transfer.
    if (reply->bytesAvailable() > 0 && reply->error() == QNetworkReply::NoError)
        result = handleResponse(reply, tempPath);
    // A connection that broke after the last arrival is a failure too; one already reported
    // by an arrival is not logged again.
    if (reply->error() != QNetworkReply::NoError) {
        if (result != Failed)
            qCWarning(lcDownload).nospace().noquote() << "Download failed: " << reply->errorString();
        result = Failed;
    }

    if (output) {
        // The last block can end the transfer without having been reported.
        reportProgress(outputSize, total);
        const qint64 announced = reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
        qCInfo(lcDownload).nospace().noquote() << "http response file size : " << announced;
        if (announced != output->size()) {
            qCWarning(lcDownload).nospace().noquote() << "http response file size != download local file size";
            result = Failed;
        }
        // The network layer stops reading at Content-Length, so a length announced short of the
        // range the server says it sends only shows up when the two headers are compared.
        static const QRegularExpression rangeSpan(QStringLiteral("^bytes (\\d+)-(\\d+)/"));
        const auto span = rangeSpan.match(QString::fromLatin1(reply->rawHeader("Content-Range")));
        if (span.hasMatch() && span.captured(2).toLongLong() - span.captured(1).toLongLong() + 1 != announced) {
            qCWarning(lcDownload).nospace().noquote()
                << "http response content range != file size: " << reply->rawHeader("Content-Range");
            result = Failed;
        }
        output->close();
        output.reset();
    }
    reply->deleteLater();
    return result;
}

DownloadStatus FileDownloader::Private::handleResponse(QNetworkReply *reply, const QString &tempPath)
{
    if (reply->error() != QNetworkReply::NoError) {
        qCWarning(lcDownload).nospace().noquote() << "Download failed: " << reply->errorString();
        return Failed;
    }
    // An error page is not the file, even when the network layer has not flagged it yet.
    if (!statusChecked) {
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (status != 0 && status != 200 && status != 206) {
            qCWarning(lcDownload).nospace().noquote() << "Download failed: "
                                                      << "HTTP status " << status;
            return giveUp(reply);
        }
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        total = length.isValid() ? length.toLongLong() : -1;
        statusChecked = true;
    }

    if (!output) {
        createFolder(tempPath.left(tempPath.lastIndexOf(QLatin1Char('/'))));
        output = std::make_unique<QFile>(tempPath);
        // Unbuffered: every block is flushed as soon as it is written anyway.
        if (!output->open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
            qCWarning(lcDownload).nospace().noquote() << "open file error: " << tempPath;
            output.reset();
            return giveUp(reply);
        }
        // Not empty when a ".temp" from an earlier attempt was there.
        outputSize = output->size();
    }

    // All that is available; when that is one block of the reply's buffer, read() hands over
    // that block instead of copying it (readAll() always copies).
    const QByteArray bytes = reply->read(reply->bytesAvailable());
    if (bytes.isEmpty()) {
        qCWarning(lcDownload).nospace().noquote() << "reply readAll size is 0";
        return Failed;
    }
    bytesWritten += bytes.size();
    outputSize += bytes.size();
    if (output->write(bytes) != bytes.size() || !output->flush()) {
        qCWarning(lcDownload).nospace().noquote() << "write file error: " << tempPath << " " << output->errorString();
        return giveUp(reply);
    }
    reportProgress(outputSize, total);
    return Successed;
}

DownloadStatus FileDownloader::Private::giveUp(QNetworkReply *reply)
{
    // Bytes nobody reads keep the reply's bounded buffer full: the transfer would never finish.
    reply->abort();
    return Failed;
}

void FileDownloader::Private::reportProgress(qint64 received, qint64 announcedTotal)
{
    const qint64 step =
        announcedTotal > 0 ? std::max<qint64>(announcedTotal / progressSteps, 1) : progressBytesWithoutTotal;
    if (received == progressReported || (received - progressReported < step && received != announcedTotal))
        return;
    progressReported = received;
    Q_EMIT q->progress(received, announcedTotal);
}

FileDownloader::FileDownloader()
    : d(std::make_unique<Private>(this))
{
}

FileDownloader::~FileDownloader() = default;

void FileDownloader::setStopCondition(std::function<bool()> shouldStop)
{
    d->shouldStop = std::move(shouldStop);
}

bool FileDownloader::wasStopped() const
{
    return d->stopped;
}

DownloadStatus FileDownloader::download(const std::string &url, const QString &path)
{
    const QString tempPath = path + QStringLiteral(".temp");
    const DownloadStatus result = d->downloadFile(url, tempPath);
    // A file already at the final path makes the rename fail; that is not a failed download.
    if (result == Successed)
        QFile::rename(tempPath, path);
    return result;
}

bool FileDownloader::createFolder(const QString &folderPath)
{
    QDir dir(folderPath);
    if (dir.exists())
        return true;
    if (dir.mkpath(QStringLiteral(".")))
        return true;
    RXCM_LOG_ERROR("createFolder failed folderPath = {}", folderPath.toStdString());
    return false;
}

} // namespace talvor::cloudmaterial
