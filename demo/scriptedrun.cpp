#include "scriptedrun.h"

#include "mainwindow.h"
#include "playlistwidget.h"
#include "pointerdrag.h"

#include "cloudmaterial/maincontrollerwrapper.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QTreeWidget>
#include <QWebEnginePage>
#include <QWebEngineView>

#include <cstdio>
#include <functional>
#include <set>
#include <vector>

using talvor::cloudmaterial::MainControllerWrapper;

namespace {

const int stepTimeoutMs = 60000;
// The panel keeps a material's id in this item role.
const int materialIdRole = Qt::UserRole + 1;
// Approved materials of the local cloud's catalogue, small enough to come quickly.
const QStringList downloadIds{QStringLiteral("d01"), QStringLiteral("d03"), QStringLiteral("d04")};
// The local cloud breaks off this material's first download (see localcloud.cpp).
const char *const failingOnceId = "d08";

// Presses the slider's handle, moves it past the end of its track and lets go, as a pointer would.
const QString dragToTheEnd = QStringLiteral(R"((function () {
    var handle = document.getElementById('handle');
    var slider = document.getElementById('slider');
    if (!handle || !slider)
        return false;
    var box = handle.getBoundingClientRect();
    var x = Math.round(box.left + box.width / 2), y = Math.round(box.top + box.height / 2);
    var end = Math.round(x + slider.clientWidth - handle.offsetWidth + 12);
    function fire(type, clientX) {
        handle.dispatchEvent(new PointerEvent(type, {
            bubbles: true, cancelable: true, pointerId: 7, pointerType: 'mouse',
            isPrimary: true, button: type === 'pointermove' ? -1 : 0,
            buttons: type === 'pointerup' ? 0 : 1, clientX: clientX, clientY: y }));
    }
    fire('pointerdown', x);
    for (var i = 1; i <= 20; ++i)
        fire('pointermove', Math.round(x + (end - x) * i / 20));
    fire('pointerup', end);
    return slider.classList.contains('verified');
})())");

// What a downloaded file holds, told by its first bytes.
QString kindOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("unreadable");
    const QByteArray head = file.read(12);
    const QString size = QString::number(file.size());
    if (head.startsWith("\xFF\xD8\xFF"))
        return QStringLiteral("JPEG picture, %1 bytes").arg(size);
    if (head.startsWith("\x89PNG"))
        return QStringLiteral("PNG picture, %1 bytes").arg(size);
    if (head.startsWith("RIFF") && head.mid(8, 4) == "WAVE")
        return QStringLiteral("WAV audio, %1 bytes").arg(size);
    if (head.startsWith("RIFF") && head.mid(8, 4) == "AVI ")
        return QStringLiteral("AVI video, %1 bytes").arg(size);
    if (head.startsWith("%PDF"))
        return QStringLiteral("PDF document, %1 bytes").arg(size);
    return QStringLiteral("unknown content, %1 bytes").arg(size);
}

void say(const QString &line)
{
    std::printf("step: %s\n", qPrintable(line));
    std::fflush(stdout);
}

} // namespace

class ScriptedRun::Private
{
public:
    struct Step
    {
        QString missing; // what is reported if the step never completes
        std::function<bool()> reached; // polled until true
    };

    QWidget *loginDialog() const;
    QWidget *panel() const;
    QListWidget *materialList() const;
    bool statusShown(const QString &id, const QString &image) const;
    void selectOnly(const QString &id) const;
    QPushButton *button(const char *name) const;
    void poll();
    void fail();

    ScriptedRun *q = nullptr;
    MainWindow *window = nullptr;
    QString screenshots;
    std::vector<Step> steps;
    std::size_t current = 0;
    QElapsedTimer stepClock;
    QTimer pollTimer;
    QString userName;
    std::vector<QString> downloaded;
    bool sliderPassed = false;
    bool dragQueued = false;
    bool loginPressed = false;
    bool downloadAsked = false;
    bool pointerDragging = false;
    PointerDrag pointer;
    std::size_t loginSteps = 0;
    bool ownStepsAfterLogin = false;
    // The way back from a failed download, a drag from the table and a change of language.
    enum class Recovery { Start, Failing, Deleting, Downloading, Done } recovery = Recovery::Start;
    bool tableDragging = false;
    QString languageBefore;
};

QWidget *ScriptedRun::Private::loginDialog() const
{
    for (QWidget *top : QApplication::topLevelWidgets()) {
        if (top->isVisible() && top->findChild<QLineEdit *>(QStringLiteral("lineEdit_userName")))
            return top;
    }
    return nullptr;
}

QWidget *ScriptedRun::Private::panel() const
{
    return MainControllerWrapper::instance().cloudMaterialList();
}

QListWidget *ScriptedRun::Private::materialList() const
{
    QWidget *p = panel();
    return p ? p->findChild<QListWidget *>() : nullptr;
}

// The panel's table keeps the id in its hidden column 7 and the status image's name in a role
// of the status column; the demo reads them as a tester would.
bool ScriptedRun::Private::statusShown(const QString &id, const QString &image) const
{
    QWidget *p = panel();
    auto *tree = p ? p->findChild<QTreeWidget *>(QStringLiteral("detailTreeWidget")) : nullptr;
    for (int row = 0; tree && row < tree->topLevelItemCount(); ++row) {
        QTreeWidgetItem *item = tree->topLevelItem(row);
        if (item->text(7) == id)
            return item->data(2, Qt::UserRole + 2).toString() == image;
    }
    return false;
}

void ScriptedRun::Private::selectOnly(const QString &id) const
{
    QListWidget *list = materialList();
    list->clearSelection();
    for (int row = 0; row < list->count(); ++row) {
        if (list->item(row)->data(materialIdRole).toString() == id)
            list->item(row)->setSelected(true);
    }
}

QPushButton *ScriptedRun::Private::button(const char *name) const
{
    return panel()->findChild<QPushButton *>(QLatin1String(name));
}

void ScriptedRun::Private::poll()
{
    if (current >= steps.size())
        return;
    if (steps[current].reached()) {
        ++current;
        stepClock.restart();
        if (current == steps.size()) {
            pollTimer.stop();
            say(QStringLiteral("done"));
            Q_EMIT q->finished(0);
        }
        return;
    }
    if (stepClock.elapsed() > stepTimeoutMs)
        fail();
}

void ScriptedRun::Private::fail()
{
    pollTimer.stop();
    std::printf("missing: %s (not reached within %d s)\n", qPrintable(steps[current].missing), stepTimeoutMs / 1000);
    std::fflush(stdout);
    Q_EMIT q->finished(1);
}

ScriptedRun::ScriptedRun(MainWindow *window, const QString &screenshotFolder, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    d->q = this;
    d->window = window;
    d->screenshots = QDir::cleanPath(screenshotFolder);
    QDir().mkpath(screenshotFolder);

    // A pointer drag whose drop did not land (a window still settling, say) is tried again.
    connect(&d->pointer, &PointerDrag::finished, this, [this] { d->pointerDragging = false; });

    auto &wrapper = MainControllerWrapper::instance();
    connect(&wrapper, &MainControllerWrapper::loginSuccess, this,
            [this](const std::string &name) { d->userName = QString::fromStdString(name); });
    connect(&wrapper, &MainControllerWrapper::sigDownloadSuccess, this,
            [this](const std::string &id, const std::string &path) {
                const QString file = QString::fromStdString(path);
                say(QStringLiteral("downloaded %1 to %2 (%3)").arg(QString::fromStdString(id), file, kindOf(file)));
                d->downloaded.push_back(QString::fromStdString(path));
            });

    const auto shoot = [this](QWidget *widget, const QString &name) {
        const QString path = d->screenshots + QLatin1Char('/') + name;
        if (widget->grab().save(path))
            say(QStringLiteral("screenshot %1").arg(path));
    };

    d->steps.push_back({QStringLiteral("the login dialog"), [this, shoot] {
                            QWidget *dialog = d->loginDialog();
                            if (!dialog)
                                return false;
                            // A first login names the region; the directory arrives after the dialog.
                            auto *regions = dialog->findChild<QComboBox *>(QStringLiteral("comboBox_severSelect"));
                            if (!regions || regions->count() == 0)
                                return false;
                            // Nothing saved yet: the dialog opens on the choice of a server.
                            auto *servers = dialog->findChild<QWidget *>(QStringLiteral("widget_login_sever"));
                            if (!servers || !servers->isVisible())
                                return false;
                            say(QStringLiteral("login dialog shown, server list first"));
                            shoot(dialog, QStringLiteral("demo-login-server.png"));
                            regions->setCurrentIndex(0);
                            say(QStringLiteral("region %1 chosen").arg(regions->currentText()));
                            dialog->findChild<QPushButton *>(QStringLiteral("pushButton_accept"))->click();
                            dialog->findChild<QLineEdit *>(QStringLiteral("lineEdit_userName"))->setText("demo");
                            dialog->findChild<QLineEdit *>(QStringLiteral("lineEdit_password"))->setText("demo1234");
                            if (auto *agree = dialog->findChild<QCheckBox *>(QStringLiteral("checkBox_agree_account")))
                                agree->setChecked(true);
                            return true;
                        }});
    d->steps.push_back({QStringLiteral("the slider check passed"), [this, shoot] {
                            if (d->sliderPassed) {
                                say(QStringLiteral("slider check passed"));
                                // Filled in and checked: the dialog as the user sees it before logging in.
                                if (QWidget *dialog = d->loginDialog())
                                    shoot(dialog, QStringLiteral("demo-login.png"));
                                return true;
                            }
                            QWidget *dialog = d->loginDialog();
                            if (!dialog || d->dragQueued)
                                return false;
                            // The page may still be loading; a drag without a handle is tried again.
                            for (QWebEngineView *view : dialog->findChildren<QWebEngineView *>()) {
                                if (!view->isVisible())
                                    continue;
                                d->dragQueued = true;
                                view->page()->runJavaScript(dragToTheEnd, [this](const QVariant &verified) {
                                    d->sliderPassed = d->sliderPassed || verified.toBool();
                                    QTimer::singleShot(500, this, [this] { d->dragQueued = false; });
                                });
                                break;
                            }
                            return false;
                        }});
    d->steps.push_back({QStringLiteral("loginSuccess after pressing the login button"), [this] {
                            if (!d->userName.isEmpty()) {
                                say(QStringLiteral("logged in as %1").arg(d->userName));
                                return true;
                            }
                            QWidget *dialog = d->loginDialog();
                            if (!d->loginPressed && dialog) {
                                d->loginPressed = true;
                                dialog->findChild<QPushButton *>(QStringLiteral("pushButton_login"))->click();
                            }
                            return false;
                        }});
    d->loginSteps = d->steps.size();
    d->steps.push_back({QStringLiteral("the catalogue in the panel"), [this, shoot] {
                            QListWidget *list = d->materialList();
                            if (!list || list->count() < 20)
                                return false;
                            // The login's refresh is followed at once by one that looks for the
                            // new materials' copies: the approved ones come to "download allowed".
                            if (!d->statusShown(downloadIds.front(), QStringLiteral("download_status_allowed")))
                                return false;
                            say(QStringLiteral("panel lists %1 materials").arg(list->count()));
                            shoot(d->panel(), QStringLiteral("demo-panel-list.png"));
                            auto *mode = d->panel()->findChild<QPushButton *>(QStringLiteral("treeModeBtn"));
                            if (mode) {
                                mode->click();
                                QApplication::processEvents();
                                shoot(d->panel(), QStringLiteral("demo-panel-tree.png"));
                                mode->click(); // back to the list, where the selection below is made
                                QApplication::processEvents();
                            }
                            return true;
                        }});
    d->steps.push_back(
        {QStringLiteral("three sigDownloadSuccess"), [this] {
             if (!d->downloadAsked) {
                 d->downloadAsked = true;
                 QListWidget *list = d->materialList();
                 list->clearSelection();
                 for (int row = 0; row < list->count(); ++row) {
                     QListWidgetItem *item = list->item(row);
                     if (downloadIds.contains(item->data(materialIdRole).toString()))
                         item->setSelected(true);
                 }
                 say(QStringLiteral("downloading %1 selected materials").arg(list->selectedItems().size()));
                 d->panel()->findChild<QPushButton *>(QStringLiteral("downloadBtn"))->click();
             }
             return d->downloaded.size() >= 3;
         }});
    d->steps.push_back(
        {QStringLiteral("a material on the playlist"), [this] {
             PlaylistWidget *playlist = d->window->playlist();
             if (playlist->count() > 0) {
                 say(QStringLiteral("playlist holds %1").arg(playlist->item(0)->text()));
                 return true;
             }
             if (d->pointerDragging)
                 return false;
             QListWidget *list = d->materialList();
             QListWidgetItem *item = nullptr;
             for (int row = 0; list && row < list->count() && !item; ++row) {
                 if (list->item(row)->data(materialIdRole).toString() == downloadIds.front())
                     item = list->item(row);
             }
             if (!item)
                 return false;
             if (!d->pointer.isAvailable()) {
                 say(QStringLiteral("no X test extension here: dropping without the pointer"));
                 playlist->addMaterial(d->downloaded.front());
                 return false;
             }
             // A real drag: press on the material in the grid, move onto the playlist, let go.
             // Pressing on one of several selected items keeps them all; the drag
             // carries the first, so the material is made the only selection.
             list->clearSelection();
             list->scrollToItem(item);
             const QPoint from = list->viewport()->mapToGlobal(list->visualItemRect(item).center());
             const QPoint to = playlist->mapToGlobal(playlist->rect().center());
             say(QStringLiteral("dragging %1 onto the playlist with the pointer").arg(downloadIds.front()));
             d->pointerDragging = true;
             d->pointer.drag(from, to);
             return false;
         }});
    // The local cloud breaks off the first download of this material: Delete clears what it left.
    d->steps.push_back({QStringLiteral("a failed download recovered with Delete"), [this, shoot] {
                            using Recovery = Private::Recovery;
                            const QString id = QString::fromLatin1(failingOnceId);
                            switch (d->recovery) {
                            case Recovery::Start:
                                d->selectOnly(id);
                                say(QStringLiteral("downloading %1, whose first download breaks off").arg(id));
                                d->button("downloadBtn")->click();
                                d->recovery = Recovery::Failing;
                                return false;
                            case Recovery::Failing:
                                if (!d->statusShown(id, QStringLiteral("download_status_failed")))
                                    return false;
                                say(QStringLiteral("%1 failed; deleting what it left").arg(id));
                                shoot(d->panel(), QStringLiteral("demo-download-failed.png"));
                                // The confirmation is a window of its own; it is answered on the next turn.
                                QMetaObject::invokeMethod(d->button("delBtn"), &QPushButton::click,
                                                          Qt::QueuedConnection);
                                d->recovery = Recovery::Deleting;
                                return false;
                            case Recovery::Deleting: {
                                auto *box = d->panel()->findChild<QMessageBox *>(QStringLiteral("deleteConfirmation"));
                                if (box && box->isVisible()) {
                                    box->button(QMessageBox::Yes)->click();
                                    return false;
                                }
                                if (!d->statusShown(id, QStringLiteral("download_status_allowed")))
                                    return false;
                                say(QStringLiteral("%1 may be downloaded again").arg(id));
                                d->selectOnly(id);
                                d->button("downloadBtn")->click();
                                d->recovery = Recovery::Downloading;
                                return false;
                            }
                            case Recovery::Downloading:
                                if (!d->statusShown(id, QStringLiteral("download_status_successed")))
                                    return false;
                                say(QStringLiteral("%1 downloaded on the second try").arg(id));
                                shoot(d->panel(), QStringLiteral("demo-download-recovered.png"));
                                d->recovery = Recovery::Done;
                                return true;
                            case Recovery::Done:
                                return true;
                            }
                            return false;
                        }});
    // The same drag from the table.
    d->steps.push_back(
        {QStringLiteral("a material dragged from the table onto the playlist"), [this, shoot] {
             PlaylistWidget *playlist = d->window->playlist();
             if (playlist->count() > 1) {
                 say(QStringLiteral("playlist holds %1 from the table").arg(playlist->item(1)->text()));
                 shoot(d->window, QStringLiteral("demo-drag-from-table.png"));
                 return true;
             }
             if (d->pointerDragging)
                 return false;
             auto *tree = d->panel()->findChild<QTreeWidget *>(QStringLiteral("detailTreeWidget"));
             if (!tree)
                 return false;
             if (!tree->isVisible()) {
                 d->button("treeModeBtn")->click();
                 return false;
             }
             QTreeWidgetItem *row = nullptr;
             for (int i = 0; i < tree->topLevelItemCount() && !row; ++i) {
                 if (tree->topLevelItem(i)->text(7) == QLatin1String(failingOnceId))
                     row = tree->topLevelItem(i);
             }
             if (!row)
                 return false;
             if (!d->pointer.isAvailable()) {
                 say(QStringLiteral("no X test extension here: dropping without the pointer"));
                 playlist->addMaterial(row->text(8));
                 return false;
             }
             tree->clearSelection();
             tree->scrollToItem(row);
             const QPoint from = tree->viewport()->mapToGlobal(tree->visualItemRect(row).center());
             const QPoint to = playlist->mapToGlobal(playlist->rect().center());
             say(QStringLiteral("dragging %1 from the table onto the playlist").arg(QLatin1String(failingOnceId)));
             d->pointerDragging = true;
             d->pointer.drag(from, to);
             return false;
         }});
    // The host switches the language while the panel is open: the panel follows.
    d->steps.push_back(
        {QStringLiteral("the panel in the new language"), [this, shoot] {
             auto *tree = d->panel()->findChild<QTreeWidget *>(QStringLiteral("detailTreeWidget"));
             const QString header = tree->headerItem()->text(0);
             if (d->languageBefore.isEmpty()) {
                 d->languageBefore = header;
                 MainControllerWrapper::instance().setCurrentLanguage(header == QLatin1String("Name") ? "zh_CN" : "en");
                 return false;
             }
             if (header == d->languageBefore)
                 return false;
             say(QStringLiteral("panel switched language: \"%1\" is now \"%2\"").arg(d->languageBefore, header));
             shoot(d->panel(), QStringLiteral("demo-panel-language.png"));
             return true;
         }});
}

ScriptedRun::~ScriptedRun() = default;

void ScriptedRun::addStepAfterLogin(const QString &missing, std::function<bool()> reached)
{
    if (!d->ownStepsAfterLogin) {
        d->steps.resize(d->loginSteps);
        d->ownStepsAfterLogin = true;
    }
    d->steps.push_back({missing, std::move(reached)});
}

void ScriptedRun::start()
{
    MainControllerWrapper::instance().login();
    d->stepClock.start();
    connect(&d->pollTimer, &QTimer::timeout, this, [this] { d->poll(); });
    d->pollTimer.start(200);
}
