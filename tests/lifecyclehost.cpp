// A player-like host of the module for tst_lifecycle: it links the shared library, embeds the
// panel in a window and drives the façade and the panel's buttons on commands read from stdin,
// one per line. It answers every command with "done <command>" (or "error <text>") on stdout
// and reports the façade's signals there as "login <user>", "logout" and
// "downloaded <id> <path>". "quit" leaves the event loop and main() returns 0, with
// QApplication and the window still on main()'s stack, as in a real player.
//
// Commands: autologin | clear | volume <n> | wait <ms> | click <button object name> [times]
//           | select <material name>... | names | quit
//
// Options: --config <folder> --materials <folder> --ca <CA file> --serial <serial number>

#include <cloudmaterial/maincontrollerwrapper.h>

#include <QAbstractButton>
#include <QApplication>
#include <QCommandLineParser>
#include <QListWidget>
#include <QSocketNotifier>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QStringList>
#include <QTimer>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <QWidget>

#include <cstdio>
#include <deque>

#include <unistd.h>

using talvor::cloudmaterial::MainControllerWrapper;

namespace {

void say(const QString &line)
{
    std::fputs(qPrintable(line + QLatin1Char('\n')), stdout);
    std::fflush(stdout);
}

} // namespace

/** Reads the test's commands and runs them one after the other on the GUI thread, which owns it. */
class LifecycleHost : public QObject
{
    Q_OBJECT

public:
    explicit LifecycleHost(QWidget *window)
        : window(window)
        , input(STDIN_FILENO, QSocketNotifier::Read)
    {
        connect(&input, &QSocketNotifier::activated, this, &LifecycleHost::readInput);
    }

private:
    void readInput()
    {
        char chunk[4096];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            // The test went away: a host without its user ends, and says so by its exit code.
            input.setEnabled(false);
            QApplication::exit(3);
            return;
        }
        buffer.append(chunk, int(n));
        int newline;
        while ((newline = buffer.indexOf('\n')) >= 0) {
            const QString line = QString::fromUtf8(buffer.left(newline)).trimmed();
            buffer.remove(0, newline + 1);
            if (!line.isEmpty())
                queue.push_back(line);
        }
        runNext();
    }

    // A command may spin a local event loop (the module's blocking calls do): the next one
    // starts only when it has returned.
    void runNext()
    {
        if (busy || queue.empty())
            return;
        busy = true;
        const QString line = queue.front();
        queue.pop_front();
        const int waitMs = run(line);
        const auto finish = [this, line] {
            say(QStringLiteral("done ") + line);
            busy = false;
            runNext();
        };
        if (waitMs > 0)
            QTimer::singleShot(waitMs, this, finish);
        else
            finish();
    }

    // Runs one command; returns how long to wait (with the event loop running) before the next.
    int run(const QString &line)
    {
        auto &cloud = MainControllerWrapper::instance();
        const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        const QString &command = words.front();
        if (command == QLatin1String("autologin")) {
            cloud.autoLogin();
        } else if (command == QLatin1String("clear")) {
            cloud.clear();
        } else if (command == QLatin1String("language") && words.size() == 2) {
            cloud.setCurrentLanguage(words[1].toStdString());
        } else if (command == QLatin1String("volume") && words.size() == 2) {
            cloud.updateVolume(words[1].toInt());
        } else if (command == QLatin1String("wait") && words.size() == 2) {
            return words[1].toInt();
        } else if (command == QLatin1String("click") && words.size() >= 2) {
            auto *button = window->findChild<QAbstractButton *>(words[1]);
            if (!button || !button->isEnabled()) {
                say(QStringLiteral("error no enabled button ") + words[1]);
                return 0;
            }
            // Presses in a row, as an impatient user makes them: nothing runs in between.
            for (int i = words.size() > 2 ? words[2].toInt() : 1; i > 0; --i)
                button->click();
        } else if (command == QLatin1String("select")) {
            select(words.mid(1));
        } else if (command == QLatin1String("names")) {
            QStringList names;
            if (auto *list = window->findChild<QListWidget *>(QStringLiteral("detailListWidget"))) {
                for (int row = 0; row < list->count(); ++row)
                    names << list->item(row)->text();
            }
            say(QStringLiteral("names ") + names.join(QLatin1Char(' ')));
        } else if (command == QLatin1String("quit")) {
            QApplication::exit(0);
        } else {
            say(QStringLiteral("error unknown command ") + line);
        }
        return 0;
    }

    // Selects exactly the named materials in the view shown, grid or table, as a user's clicks
    // with Ctrl would.
    void select(const QStringList &names)
    {
        auto *table = window->findChild<QTreeWidget *>(QStringLiteral("detailTreeWidget"));
        if (table && table->isVisibleTo(window))
            select(names, table, [table](const QString &name) { return table->findItems(name, Qt::MatchExactly); });
        else if (auto *grid = window->findChild<QListWidget *>(QStringLiteral("detailListWidget")))
            select(names, grid, [grid](const QString &name) { return grid->findItems(name, Qt::MatchExactly); });
        else
            say(QStringLiteral("error no material list"));
    }

    template<typename Find>
    void select(const QStringList &names, QAbstractItemView *view, Find find)
    {
        view->clearSelection();
        for (const QString &name : names) {
            const auto found = find(name);
            if (found.size() != 1) {
                say(QStringLiteral("error not listed ") + name);
                continue;
            }
            found.front()->setSelected(true);
        }
    }

    QWidget *const window;
    QSocketNotifier input;
    QByteArray buffer;
    std::deque<QString> queue;
    bool busy = false;
};

int main(int argc, char *argv[])
{
    // The module links the web engine, which wants shared contexts before the application exists.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);

    QCommandLineParser parser;
    const QCommandLineOption config(QStringLiteral("config"), QStringLiteral("Host configuration folder."),
                                    QStringLiteral("folder"));
    const QCommandLineOption materials(QStringLiteral("materials"), QStringLiteral("Material folder."),
                                       QStringLiteral("folder"));
    const QCommandLineOption ca(QStringLiteral("ca"), QStringLiteral("The cloud's CA file."), QStringLiteral("file"));
    const QCommandLineOption serial(QStringLiteral("serial"), QStringLiteral("Serial number."), QStringLiteral("sn"));
    parser.addOptions({config, materials, ca, serial});
    parser.process(app);

    // The module leaves TLS settings to its host, which trusts its private cloud's CA.
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.addCaCertificates(QSslCertificate::fromPath(parser.value(ca), QSsl::Pem));
    QSslConfiguration::setDefaultConfiguration(tls);

    QWidget window;
    auto *layout = new QVBoxLayout(&window);
    LifecycleHost host(&window);

    // Like the demo, the host never logs before the module does: the module is first to reach
    // the host's logger.
    auto &cloud = MainControllerWrapper::instance();
    cloud.setRXRuntime(nullptr);
    cloud.setAppConfigPath(parser.value(config).toStdString());
    cloud.setAppVersion("1.0.0");
    cloud.setDeviceName("Lifecycle host");
    cloud.setSerialNumber(parser.value(serial).toStdString());
    cloud.setCloudMaterialFolderPath(parser.value(materials).toStdString());
    cloud.setCurrentLanguage("en");
    QObject::connect(&cloud, &MainControllerWrapper::loginSuccess, &window,
                     [](const std::string &user) { say(QStringLiteral("login ") + QString::fromStdString(user)); });
    QObject::connect(&cloud, &MainControllerWrapper::exitLoginSuccess, &window, [] { say(QStringLiteral("logout")); });
    QObject::connect(
        &cloud, &MainControllerWrapper::sigDownloadSuccess, &window,
        [](const std::string &id, const std::string &path) {
            say(QStringLiteral("downloaded %1 %2").arg(QString::fromStdString(id), QString::fromStdString(path)));
        });
    layout->addWidget(cloud.cloudMaterialList());
    window.resize(720, 480);
    window.show();
    say(QStringLiteral("ready"));

    return app.exec();
}

#include "lifecyclehost.moc"
