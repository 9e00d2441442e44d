#include "cloudmaterial/cloudmateriallist/detaillistitemwidget.h"

#include <QProgressBar>
#include <QVBoxLayout>

namespace talvor::cloudmaterial {

class DetailListItemWidget::Private
{
public:
    CloudMaterialModel model;
    QString materialString;
    QProgressBar *bar = nullptr;
};

DetailListItemWidget::DetailListItemWidget(const CloudMaterialModel &model, const QString &materialString,
                                           QWidget *parent)
    : QWidget(parent)
    , d(std::make_unique<Private>())
{
    d->model = model;
    d->materialString = materialString;
    setAttribute(Qt::WA_TransparentForMouseEvents);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(8, 0, 8, 26); // above the name line the delegate draws
    layout->addStretch();
    d->bar = new QProgressBar(this);
    d->bar->setObjectName(QStringLiteral("materialProgress"));
    d->bar->setFixedHeight(6);
    d->bar->setTextVisible(false);
    d->bar->hide();
    layout->addWidget(d->bar);
}

DetailListItemWidget::~DetailListItemWidget() = default;

const CloudMaterialModel &DetailListItemWidget::model() const
{
    return d->model;
}

void DetailListItemWidget::setDownloadStatus(int status)
{
    d->model.downloadStatus = status;
    if (status != Downloading)
        d->bar->hide();
}

void DetailListItemWidget::setApprovalStatus(int approval)
{
    d->model.approvalStatus = approval;
}

QString DetailListItemWidget::materialString() const
{
    return d->materialString;
}

void DetailListItemWidget::setProgress(qint64 received, qint64 total)
{
    if (total > 0) {
        d->bar->setRange(0, 100);
        d->bar->setValue(int(received * 100 / total));
    } else {
        d->bar->setRange(0, 0); // busy indicator: the size is unknown
    }
    d->bar->show();
}

int DetailListItemWidget::progress() const
{
    if (d->bar->isHidden())
        return -1;
    return d->bar->maximum() > 0 ? d->bar->value() : 0;
}

} // namespace talvor::cloudmaterial
