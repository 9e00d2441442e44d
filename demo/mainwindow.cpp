#include "mainwindow.h"

#include "playlistwidget.h"

#include "cloudmaterial/maincontrollerwrapper.h"

#include <QDrag>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSplitter>
#include <QStatusBar>
#include <QVBoxLayout>

using talvor::cloudmaterial::MainControllerWrapper;

class MainWindow::Private
{
public:
    QSplitter *splitter = nullptr;
    QWidget *panelHolder = nullptr;
    PlaylistWidget *playlist = nullptr;
    QLabel *account = nullptr;
    QLabel *downloads = nullptr;
    QLabel *group = nullptr;
    int downloadCount = 0;
};

MainWindow::MainWindow(QWidget *parent)
    : QMainWindow(parent)
    , d(std::make_unique<Private>())
{
    setWindowTitle(tr("Player — cloud materials"));
    resize(1200, 720);

    d->splitter = new QSplitter(this);
    d->panelHolder = new QWidget(d->splitter);
    d->panelHolder->setLayout(new QVBoxLayout);
    d->panelHolder->layout()->setContentsMargins(0, 0, 0, 0);

    auto *right = new QWidget(d->splitter);
    auto *rightLayout = new QVBoxLayout(right);
    auto *top = new QHBoxLayout;
    auto *loginButton = new QPushButton(tr("Log in"), right);
    loginButton->setObjectName(QStringLiteral("demoLoginButton"));
    top->addWidget(new QLabel(tr("Playlist"), right));
    top->addStretch();
    top->addWidget(loginButton);
    rightLayout->addLayout(top);
    d->playlist = new PlaylistWidget(right);
    rightLayout->addWidget(d->playlist);
    d->splitter->setStretchFactor(0, 3);
    d->splitter->setStretchFactor(1, 2);
    setCentralWidget(d->splitter);

    d->account = new QLabel(tr("Not logged in"), this);
    d->downloads = new QLabel(tr("No downloads"), this);
    statusBar()->addWidget(d->account);
    statusBar()->addPermanentWidget(d->downloads);

    auto &wrapper = MainControllerWrapper::instance();
    connect(loginButton, &QPushButton::clicked, this, [] { MainControllerWrapper::instance().login(); });
    connect(&wrapper, &MainControllerWrapper::loginSuccess, this, [this](const std::string &name) {
        d->account->setText(tr("Logged in as %1").arg(QString::fromStdString(name)));
    });
    connect(&wrapper, &MainControllerWrapper::exitLoginSuccess, this,
            [this] { d->account->setText(tr("Logged out")); });
    connect(&wrapper, &MainControllerWrapper::sigDownloadSuccess, this,
            [this](const std::string &, const std::string &path) {
                ++d->downloadCount;
                d->downloads->setText(
                    tr("%n download(s), last: %1", nullptr, d->downloadCount).arg(QString::fromStdString(path)));
            });
}

MainWindow::~MainWindow() = default;

void MainWindow::setMaterialPanel(QWidget *panel)
{
    if (panel)
        d->panelHolder->layout()->addWidget(panel);
}

PlaylistWidget *MainWindow::playlist() const
{
    return d->playlist;
}

void MainWindow::materialDragged(const QString &path, QDrag *drag)
{
    showStatus(tr("Dragging %1").arg(path));
    // The drop itself adds the material; a drag that ends elsewhere leaves the playlist alone.
    connect(drag, &QDrag::destroyed, this, [this] { showStatus(QString()); });
}

void MainWindow::showStatus(const QString &text)
{
    statusBar()->showMessage(text, text.isEmpty() ? 0 : 5000);
}

void MainWindow::showGroupStatus(const QString &text)
{
    if (!d->group) {
        d->group = new QLabel(d->panelHolder);
        d->group->setObjectName(QStringLiteral("demoGroupStatus"));
        d->group->setAlignment(Qt::AlignLeft | Qt::AlignTop);
        d->group->setWordWrap(true);
        d->group->setMargin(8);
        auto *layout = static_cast<QVBoxLayout *>(d->panelHolder->layout());
        layout->insertWidget(0, d->group);
    }
    d->group->setText(text);
}
