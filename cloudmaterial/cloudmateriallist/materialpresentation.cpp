#include "cloudmaterial/cloudmateriallist/materialpresentation.h"

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"
#include "cloudmaterial/translatemanager.h"

#include <QDrag>
#include <QMimeData>
#include <QPixmap>
#include <QUrl>
#include <QWidget>

namespace talvor::cloudmaterial {

QString statusImageName(int status)
{
    switch (status) {
    case NotAllowed:
        return QStringLiteral("download_status_not_allowed");
    case Allowed:
        return QStringLiteral("download_status_allowed");
    case Downloading:
        return QStringLiteral("download_status_downloading");
    case Successed:
        return QStringLiteral("download_status_successed");
    case Failed:
        return QStringLiteral("download_status_failed");
    default:
        return {};
    }
}

QString materialToolTip(const QString &name, int status)
{
    if (status != Failed)
        return name;
    // What the failed download left would spoil the next one until Delete removes it.
    return name + QLatin1Char('\n') + TranslateManager::text("DownloadFailedDeleteToRetry");
}

QString approvalText(int approval)
{
    switch (approval) {
    case PendingApproval:
        return TranslateManager::text("PendingApproval");
    case Reject:
        return TranslateManager::text("Reject");
    default:
        return {}; // approved materials need no remark
    }
}

QColor approvalColor(int approval)
{
    switch (approval) {
    case PendingApproval:
        return QColor(QStringLiteral("#EA8234"));
    case Reject:
        return QColor(QStringLiteral("#E03838"));
    default:
        return QColor(QStringLiteral("#FFFFFF"));
    }
}

QString mediaTypeName(int mediaType)
{
    switch (MediaType(mediaType)) {
    case MediaType::Picture:
        return TranslateManager::text("Picture");
    case MediaType::Video:
        return TranslateManager::text("Video");
    case MediaType::Audio:
        return TranslateManager::text("Audio");
    case MediaType::Document:
        return TranslateManager::text("Document");
    default:
        return {};
    }
}

QString placeholderImageName(int mediaType)
{
    switch (MediaType(mediaType)) {
    case MediaType::Picture:
        return QStringLiteral("thumbnail_picture");
    case MediaType::Video:
        return QStringLiteral("thumbnail_video");
    case MediaType::Audio:
        return QStringLiteral("thumbnail_audio");
    default:
        return QStringLiteral("thumbnail_document");
    }
}

QString sizeText(std::int64_t bytes)
{
    constexpr std::int64_t kb = std::int64_t(1) << 10;
    constexpr std::int64_t mb = std::int64_t(1) << 20;
    constexpr std::int64_t gb = std::int64_t(1) << 30;
    const double value = double(bytes);
    if (bytes > gb)
        return QString::number(value / 1024 / 1024 / 1024, 'f', 2) + QStringLiteral(" GB");
    if (bytes > mb)
        return QString::number(value / 1024 / 1024, 'f', 2) + QStringLiteral(" MB");
    if (bytes > kb)
        return QString::number(value / 1024, 'f', 2) + QStringLiteral(" KB");
    return QString::number(value, 'f', 2) + QStringLiteral(" B");
}

void dragMaterial(QWidget *source, const QString &materialString, const QPixmap &preview,
                  const StarDragCallback &callback)
{
    auto *drag = new QDrag(source);
    auto *mime = new QMimeData;
    mime->setText(materialString);
    mime->setUrls({QUrl::fromLocalFile(materialString)});
    drag->setMimeData(mime);
    if (!preview.isNull())
        drag->setPixmap(preview.scaled(QSize(64, 64), Qt::KeepAspectRatio, Qt::SmoothTransformation));
    if (callback)
        callback(materialString.toStdString(), drag);
    drag->exec(Qt::CopyAction);
}

} // namespace talvor::cloudmaterial
