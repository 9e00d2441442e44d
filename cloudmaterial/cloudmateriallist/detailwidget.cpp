#include "cloudmaterial/cloudmateriallist/detailwidget.h"

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/detailbottomwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistitemwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"
#include "cloudmaterial/cloudmateriallist/detailtitlewidget.h"
#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"
#include "cloudmaterial/languagechange.h"
#include "cloudmaterial/translatemanager.h"

#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QLoggingCategory>
#include <QMessageBox>
#include <QPixmap>
#include <QPointer>
#include <QPushButton>
#include <QShortcut>
#include <QStackedWidget>
#include <QVBoxLayout>

Q_LOGGING_CATEGORY(lcPanel, "rxcm.panel", QtInfoMsg)

namespace talvor::cloudmaterial {

class DetailWidget::Private
{
public:
    explicit Private(DetailWidget *q)
        : q(q)
    {
    }

    int materialCount() const { return list->count(); }

    QAbstractItemView *currentView() const
    {
        return bottom->isTreeMode() ? static_cast<QAbstractItemView *>(tree) : list;
    }

    void updateViews()
    {
        int shown = 0;
        for (int row = 0; row < list->count(); ++row)
            shown += list->item(row)->isHidden() ? 0 : 1;
        if (materialCount() > 0)
            empty->setText(TranslateManager::text("NoMatchingMaterials"));
        else if (state == CatalogueState::LoggedOut)
            empty->setText(TranslateManager::text("NotLoggedIn"));
        else if (state == CatalogueState::Unreachable)
            empty->setText(TranslateManager::text("NoMaterialsOffline"));
        else
            empty->setText(TranslateManager::text("NoMaterials"));
        if (shown == 0)
            stack->setCurrentWidget(empty);
        else
            stack->setCurrentWidget(currentView());
        // With nothing to show the empty area says it; the banner is for a list still shown.
        banner->setVisible(state == CatalogueState::Unreachable && materialCount() > 0);
        bottom->label()->setText(shown == materialCount() ? QString::number(materialCount())
                                                          : QStringLiteral("%1 / %2").arg(shown).arg(materialCount()));
        updateDeleteButton();
    }

    void retranslate()
    {
        banner->setText(TranslateManager::text("CloudUnreachable"));
        banner->setAccessibleName(TranslateManager::text("CloudUnreachable"));
        list->setAccessibleName(TranslateManager::text("CloudMaterial"));
        tree->setAccessibleName(TranslateManager::text("CloudMaterial"));
        updateViews(); // the empty area's text
    }

    int shownStatus(const std::string &id) const
    {
        const DetailListItemWidget *widget = list->materialWidget(list->itemById(QString::fromStdString(id)));
        return widget ? widget->model().downloadStatus : NotAllowed;
    }

    // Downloaded copies, and failed downloads whose leftovers must go before the next try.
    std::vector<std::string> removableSelection() const
    {
        std::vector<std::string> ids;
        for (const std::string &id : q->selectedIds()) {
            const int status = shownStatus(id);
            if (status == Successed || status == Failed)
                ids.push_back(id);
        }
        return ids;
    }

    void updateDeleteButton()
    {
        // On a proxy client the copies are the proxy server's to keep.
        const bool local = controller && !controller->isServedByProxy();
        bottom->deleteButton()->setEnabled(local && !removableSelection().empty());
    }

    QString materialString(const CloudMaterialModel &model) const
    {
        const std::string folder = controller ? controller->cloudMaterialFolderPath() : std::string();
        return QString::fromStdString(folder + "/" + model.mediaName);
    }

    void download()
    {
        if (!controller)
            return;
        for (const std::string &id : q->selectedIds())
            controller->downloadMaterial(id);
    }

    DetailWidget *const q;
    QPointer<CloudMaterialController> controller;
    DetailTitleWidget *title = nullptr;
    QLabel *banner = nullptr;
    QStackedWidget *stack = nullptr;
    DetailListWidget *list = nullptr;
    DetailTreeWidget *tree = nullptr;
    QLabel *empty = nullptr;
    DetailBottomWidget *bottom = nullptr;
    QPointer<QMessageBox> confirmation;
    QString filter;
    CatalogueState state = CatalogueState::LoggedOut;
};

DetailWidget::DetailWidget(CloudMaterialController *controller, QWidget *parent)
    : QWidget(parent)
    , d(std::make_unique<Private>(this))
{
    registerCloudMaterialMetaTypes();
    setObjectName(QStringLiteral("CloudMaterialList"));
    setAttribute(Qt::WA_StyledBackground);
    d->controller = controller;
    d->state = controller ? controller->catalogueState() : CatalogueState::LoggedOut;

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    d->title = new DetailTitleWidget(this);
    d->banner = new QLabel(this);
    d->banner->setObjectName(QStringLiteral("catalogueBanner"));
    d->banner->setWordWrap(true);
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
    layout->addWidget(d->banner);
    layout->addWidget(d->stack, 1);
    layout->addWidget(d->bottom);

    // Search, then the view shown, then the bottom bar (disabled buttons are passed over).
    DetailBottomWidget *bottom = d->bottom;
    QWidget::setTabOrder(d->title->searchEdit(), d->title->refreshButton());
    QWidget::setTabOrder(d->title->refreshButton(), d->list);
    QWidget::setTabOrder(d->list, d->tree);
    QWidget::setTabOrder(d->tree, bottom->addButton());
    QWidget::setTabOrder(bottom->addButton(), bottom->deleteButton());
    QWidget::setTabOrder(bottom->deleteButton(), bottom->modeButton());
    QWidget::setTabOrder(bottom->modeButton(), bottom->downloadButton());

    QPointer<CloudMaterialController> weakController = controller;
    const auto callbackProvider = [weakController] {
        return weakController ? weakController->starDragCallback() : StarDragCallback();
    };
    d->list->setStarDragCallbackProvider(callbackProvider);
    d->tree->setStarDragCallbackProvider(callbackProvider);

    connect(d->title, &DetailTitleWidget::searchTextChanged, this, &DetailWidget::setFilter);
    connect(d->title, &DetailTitleWidget::refreshRequested, this, [this] {
        if (d->controller)
            d->controller->requestRefresh(false);
    });
    // Return in the search field goes on to the materials it found.
    connect(d->title->searchEdit(), &QLineEdit::returnPressed, this, [this] {
        if (d->stack->currentWidget() == d->currentView())
            d->currentView()->setFocus(Qt::TabFocusReason);
    });
    connect(d->bottom, &DetailBottomWidget::treeModeChanged, this, [this] { d->updateViews(); });
    connect(d->bottom, &DetailBottomWidget::downloadRequested, this, [this] { d->download(); });
    connect(d->bottom, &DetailBottomWidget::deleteRequested, this, &DetailWidget::removeSelectedLocalCopies);
    connect(d->list, &QListWidget::itemSelectionChanged, this, [this] { d->updateDeleteButton(); });
    connect(d->tree, &QTreeWidget::itemSelectionChanged, this, [this] { d->updateDeleteButton(); });

    // Panel-wide keys work wherever the focus is inside the panel, and only there: the host
    // keeps its own Ctrl+F and F5 elsewhere.
    auto *find = new QShortcut(QKeySequence::Find, this, nullptr, nullptr, Qt::WidgetWithChildrenShortcut);
    connect(find, &QShortcut::activated, this, [this] {
        d->title->searchEdit()->setFocus(Qt::ShortcutFocusReason);
        d->title->searchEdit()->selectAll();
    });
    auto *refresh = new QShortcut(QKeySequence(Qt::Key_F5), this, nullptr, nullptr, Qt::WidgetWithChildrenShortcut);
    connect(refresh, &QShortcut::activated, d->title->refreshButton(), &QPushButton::click);
    // Enter and Delete act on the selection only from a view, so the search field keeps them.
    for (QAbstractItemView *view :
         {static_cast<QAbstractItemView *>(d->list), static_cast<QAbstractItemView *>(d->tree)}) {
        for (int key : {int(Qt::Key_Return), int(Qt::Key_Enter)}) {
            auto *enter = new QShortcut(QKeySequence(key), view, nullptr, nullptr, Qt::WidgetShortcut);
            connect(enter, &QShortcut::activated, d->bottom->downloadButton(), &QPushButton::click);
        }
        auto *del = new QShortcut(QKeySequence::Delete, view, nullptr, nullptr, Qt::WidgetShortcut);
        connect(del, &QShortcut::activated, this, [this] {
            if (d->bottom->deleteButton()->isEnabled())
                d->bottom->deleteButton()->click();
        });
    }
    d->retranslate();
    onLanguageChange(this, [this] { d->retranslate(); });

    if (!controller)
        return;
    connect(controller, &CloudMaterialController::addMaterials, this, &DetailWidget::addMaterials);
    connect(controller, &CloudMaterialController::deleteMaterials, this, &DetailWidget::deleteMaterials);
    connect(controller, &CloudMaterialController::materialDownloadStatusChanged, this,
            &DetailWidget::onMaterialDownloadStatusChanged);
    connect(controller, &CloudMaterialController::materialApprovalStatusChanged, this,
            &DetailWidget::onMaterialApprovalStatusChanged);
    connect(controller, &CloudMaterialController::materialDownloadProgress, this,
            &DetailWidget::onMaterialDownloadProgress);
    connect(controller, &CloudMaterialController::materialThumbnailReady, this,
            &DetailWidget::onMaterialThumbnailReady);
    connect(controller, &CloudMaterialController::catalogueStateChanged, this, &DetailWidget::setCatalogueState);
    // Materials known before the panel existed, and their previews (from disk, or fetched now).
    addMaterials(controller->materials());
    controller->showPreviews();
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

QLabel *DetailWidget::banner() const
{
    return d->banner;
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
    d->updateDeleteButton();
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

void DetailWidget::onMaterialThumbnailReady(const std::string &id, const std::string &path)
{
    const QString file = QString::fromStdString(path);
    const QPixmap thumbnail(file);
    if (thumbnail.isNull()) {
        // Not a picture: drop it, so that the next refresh fetches it again.
        qCWarning(lcPanel).noquote() << "unreadable thumbnail" << file << "removed";
        QFile::remove(file);
        return;
    }
    d->list->setThumbnail(QString::fromStdString(id), thumbnail);
    d->tree->setThumbnail(QString::fromStdString(id), thumbnail);
}

void DetailWidget::setCatalogueState(CatalogueState state)
{
    d->state = state;
    d->updateViews();
}

CatalogueState DetailWidget::catalogueState() const
{
    return d->state;
}

void DetailWidget::removeSelectedLocalCopies()
{
    const std::vector<std::string> ids = d->removableSelection();
    if (ids.empty() || !d->controller || d->confirmation)
        return;
    auto *box = new QMessageBox(QMessageBox::Question, TranslateManager::text("Delete"),
                                TranslateManager::text("DeleteLocalCopiesConfirm").arg(ids.size()),
                                QMessageBox::Yes | QMessageBox::Cancel, this);
    box->setObjectName(QStringLiteral("deleteConfirmation"));
    box->button(QMessageBox::Yes)->setText(TranslateManager::text("Delete"));
    box->button(QMessageBox::Cancel)->setText(TranslateManager::text("Cancel"));
    box->setDefaultButton(QMessageBox::Cancel); // a stray Enter deletes nothing
    box->setAttribute(Qt::WA_DeleteOnClose);
    d->confirmation = box;
    connect(box, &QMessageBox::finished, this, [this, ids, box] {
        if (box->clickedButton() != box->button(QMessageBox::Yes) || !d->controller)
            return;
        for (const std::string &id : ids)
            d->controller->removeLocalCopy(id);
    });
    box->open();
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
