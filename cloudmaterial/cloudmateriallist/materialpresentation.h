#pragma once

#include <QColor>
#include <QString>

#include <cstdint>

namespace talvor::cloudmaterial {

/** Name (without ".png") of the theme image for a download status; empty for unknown values. */
QString statusImageName(int status);
/** Full path of a theme image of the module, e.g. themeImagePath("download_status_failed.png"). */
QString themeImagePath(const QString &fileName);
/** Translated label of an approval value; empty for values that need no label. */
QString approvalText(int approval);
QColor approvalColor(int approval);
/** Translated type name of a cloud media type code; empty for codes the panel does not know. */
QString mediaTypeName(int mediaType);
/** Name (without ".png") of the theme image that stands in for a material without a thumbnail. */
QString placeholderImageName(int mediaType);
/** A byte count in the largest unit it exceeds, two decimals ("1.50 MB"). */
QString sizeText(std::int64_t bytes);

} // namespace talvor::cloudmaterial
