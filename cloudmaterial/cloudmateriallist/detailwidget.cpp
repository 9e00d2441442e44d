#include "cloudmaterial/cloudmateriallist/detailwidget.h"

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/detailbottomwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"
#include "cloudmaterial/cloudmateriallist/detailtitlewidget.h"
#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"
#include "cloudmaterial/translatemanager.h"

#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace talvor::cloudmaterial {

class DetailWidget::Private
{
public:
    explicit Private(DetailWidget *q)
        : q(q)
    {
    }

    int materialCount() const { return list->count(); }

    void updateViews()
    {
        int shown = 0;
        for (int row = 0; row < list->count(); ++row)
            shown += list->item(row)->isHidden() ? 0 : 1;
        if (materialCount() == 0)
            empty->setText(TranslateManager::text("NoMaterials"));
        else
            empty->setText(TranslateManager::text("NoMatchingMaterials"));
        if (shown == 0)
            stack->setCurrentWidget(empty);
        else
            stack->setCurrentWidget(bottom->isTreeMode() ? static_cast<QWidget *>(tree) : list);
        bottom->label()->setText(shown == materialCount()
                                     ? QString::number(materialCount())
                                     : QStringLiteral("%1 / %2").arg(shown).arg(materialCount()));
    }

    QString materialString(const CloudMaterialModel &model) const
    {
        const std::string folder = controller ? controller->cloudMaterialFolderPath() : std::string();
        return QString::fromStdString(folder + "/" + model.mediaName);
    }

    DetailWidget *const q;
    QPointer<CloudMaterialController> controller;
    DetailTitleWidget *title = nullptr;
    QStackedWidget *stack = nullptr;
    DetailListWidget *list = nullptr;
    DetailTreeWidget *tree = nullptr;
    QLabel *empty = nullptr;
    DetailBottomWidget *bottom = nullptr;
    QString filter;
};

DetailWidget::DetailWidget(CloudMaterialController *controller, QWidget *parent)
    : QWidget(parent)
    , d(std::make_unique<Private>(this))
{
    registerCloudMaterialMetaTypes();
    setObjectName(QStringLiteral("CloudMaterialList"));
    setAttribute(Qt::WA_StyledBackground);
    d->controller = controller;

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    d->title = new DetailTitleWidget(this);
    d->stack = new QStackedWidget(this);
    d->list = new DetailListWidget(d->stack);
    d->tree = new DetailTreeWidget(d->stack);
    d->empty = new QLabel(d->stack);
    d->empty->setObjectName(QStringLiteral("emptyLabel"));
    d->empty->setAlignment(Qt::AlignCenter);
    d->empty->setWordWrap(true);
    d->stack->addWidget(d->list);
    d->stack->addWidget(d->tree);
    d->stack->addWidget(d->empty);
    d->bottom = new DetailBottomWidget(this);
    layout->addWidget(d->title);
    layout->addWidget(d->stack, 1);
    layout->addWidget(d->bottom);

    QPointer<CloudMaterialController> weakController = controller;
    d->list->setStarDragCallbackProvider([weakController] {
        return weakController ? weakController->starDragCallback() : DetailListWidget::StarDragCallback();
    });

    connect(d->title, &DetailTitleWidget::searchTextChanged, this, &DetailWidget::setFilter);
    connect(d->title, &DetailTitleWidget::refreshRequested, this, [this] {
        if (d->controller)
            d->controller->requestRefresh(false);
    });
    connect(d->bottom, &DetailBottomWidget::treeModeChanged, this, [this] { d->updateViews(); });
    connect(d->bottom, &DetailBottomWidget::downloadRequested, this, [this] {
        if (!d->controller)
            return;
        for (const std::string &id : selectedIds())
            d->controller->downloadMaterial(id);
    });
    d->updateViews();
}

DetailWidget::~DetailWidget() = default;

DetailTitleWidget *DetailWidget::titleWidget() const
{
    return d->title;
}

DetailListWidget *DetailWidget::listView() const
{
    return d->list;
}

DetailTreeWidget *DetailWidget::treeView() const
{
    return d->tree;
}

DetailBottomWidget *DetailWidget::bottomWidget() const
{
    return d->bottom;
}

QWidget *DetailWidget::emptyLabel() const
{
    return d->empty;
}

std::vector<std::string> DetailWidget::selectedIds() const
{
    std::vector<std::string> ids;
    if (d->bottom->isTreeMode()) {
        for (QTreeWidgetItem *item : d->tree->selectedItems()) {
            if (!item->isHidden())
                ids.push_back(item->text(DetailTreeWidget::IdColumn).toStdString());
        }
    } else {
        for (QListWidgetItem *item : d->list->selectedItems()) {
            if (!item->isHidden())
                ids.push_back(item->data(DetailListWidget::IdRole).toString().toStdString());
        }
    }
    return ids;
}

void DetailWidget::addMaterials(const std::vector<CloudMaterialModel> &models)
{
    for (const CloudMaterialModel &model : models) {
        const QString id = QString::fromStdString(model.mid);
        if (d->list->itemById(id))
            continue; // already shown
        const QString path = d->materialString(model);
        d->list->addMaterial(model, path);
        d->tree->addMaterial(model, path);
    }
    setFilter(d->filter);
}

void DetailWidget::deleteMaterials(const std::vector<std::string> &ids)
{
    for (const std::string &id : ids) {
        d->list->removeMaterial(QString::fromStdString(id));
        d->tree->removeMaterial(QString::fromStdString(id));
    }
    d->updateViews();
}

void DetailWidget::onMaterialDownloadStatusChanged(const std::string &id, DownloadStatus status)
{
    d->list->setDownloadStatus(QString::fromStdString(id), status);
    d->tree->setDownloadStatus(QString::fromStdString(id), status);
}

void DetailWidget::onMaterialApprovalStatusChanged(const std::string &id, ApprovalStatus status)
{
    d->list->setApprovalStatus(QString::fromStdString(id), status);
    d->tree->setApprovalStatus(QString::fromStdString(id), status);
}

void DetailWidget::onMaterialDownloadProgress(const std::string &id, qint64 received, qint64 total)
{
    d->list->setProgress(QString::fromStdString(id), received, total);
    d->tree->setProgress(QString::fromStdString(id), received, total);
}

void DetailWidget::setFilter(const QString &text)
{
    d->filter = text.trimmed();
    for (int row = 0; row < d->list->count(); ++row) {
        QListWidgetItem *item = d->list->item(row);
        const bool hide = !item->text().contains(d->filter, Qt::CaseInsensitive);
        item->setHidden(hide);
        if (QTreeWidgetItem *treeItem = d->tree->itemById(item->data(DetailListWidget::IdRole).toString()))
            treeItem->setHidden(hide);
    }
    d->updateViews();
}

} // namespace talvor::cloudmaterial
