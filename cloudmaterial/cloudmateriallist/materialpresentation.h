#pragma once

#include <QColor>
#include <QString>

#include <cstdint>
#include <functional>
#include <string>

class QDrag;
class QPixmap;
class QWidget;

namespace talvor::cloudmaterial {

/** Name (without ".png") of the theme image for a download status; empty for unknown values. */
QString statusImageName(int status);
/** Tool tip of a material's row: its name, and for a failed download how to try again. */
QString materialToolTip(const QString &name, int status);
/** Translated label of an approval value; empty for values that need no label. */
QString approvalText(int approval);
QColor approvalColor(int approval);
/** Translated type name of a cloud media type code; empty for codes the panel does not know. */
QString mediaTypeName(int mediaType);
/** Name (without ".png") of the theme image that stands in for a material without a thumbnail. */
QString placeholderImageName(int mediaType);
/** A byte count in the largest unit it exceeds, two decimals ("1.50 MB"). */
QString sizeText(std::int64_t bytes);

/** The host's drag callback: the material's local path and the drag about to run. */
using StarDragCallback = std::function<void(const std::string &, QDrag *)>;
/**
 * Drags a material out of a view of the panel, as the host expects from either view: the local
 * path as text and as a file URL, the preview under the pointer, the host's callback (when set)
 * before the drag runs, and only ever the copy action.
 */
void dragMaterial(QWidget *source, const QString &materialString, const QPixmap &preview,
                  const StarDragCallback &callback);

} // namespace talvor::cloudmaterial
