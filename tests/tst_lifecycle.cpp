// The module's life as a host lives it: a player-like process (lifecyclehost) that links the
// shared library is started, driven and quit from here, while the local cloud and a real broker
// watch what reaches them. Exit while the device is bound, a storm of logins and clears,
// Download pressed twice, and a seeded stress that mixes these with the cloud's unbinding,
// broker restarts, language switches and the grid/table switch. Set RXCM_STRESS_SEED to replay
// a run; the seed is printed by every run.

#include "localcloud/cloudsim.h"
#include "localcloud/mosquitto.h"
#include "support/generatedcontent.h"
#include "support/hostprocess.h"

#include <QtTest>

#include <QScopeGuard>

#include <algorithm>
#include <random>

namespace {

const QString model = QStringLiteral("100001"); // the product code names the model in topics
const QString serial = QStringLiteral("SN-LIFECYCLE");
const char *const token = "tok-life";
const QString user = QStringLiteral("ann");

// A host that returns from main() is gone within this time; checked once, with a margin for a
// loaded machine and the sanitizers' exit work.
constexpr qint64 promisedExitMs = 2000;
constexpr qint64 exitMarginMs = 1000;
// After a session ends, what was already on its way may still arrive for this long.
constexpr qint64 graceMs = 1500;

QString topic(const char *root, const char *suffix)
{
    return QLatin1String(root) + model + QLatin1Char('/') + serial + QLatin1String(suffix);
}

const QString online = topic("orbicloud/upstream/report/", "/device/online");
const QString bindingRequest = topic("orbicloud/upstream/post/", "/binding/cirro");
const QString basic = topic("orbicloud/upstream/report/", "/device/basic");
const QString unbindingConfirmation = topic("orbicloud/upstream/delete/", "/unbinding/cirro");

struct Material
{
    QString mid;
    QString name;
    int size;
};

// Sizes that are no multiple of the 8-byte word, so a shifted or doubled copy shows.
const QList<Material> catalogue = [] {
    QList<Material> list;
    for (int i = 1; i <= 12; ++i)
        list.append({QStringLiteral("m%1").arg(i, 2, 10, QLatin1Char('0')),
                     QStringLiteral("clip-%1.mp4").arg(i, 2, 10, QLatin1Char('0')), 300001 + 65536 * i});
    return list;
}();

const Material *byName(const QString &name)
{
    for (const Material &m : catalogue) {
        if (m.name == name)
            return &m;
    }
    return nullptr;
}

QByteArray scenario()
{
    QJsonArray media;
    for (const Material &m : catalogue)
        media.append(QJsonObject{{"mid", m.mid},
                                 {"mediaName", m.name},
                                 {"mediaType", 1},
                                 {"approvalStatus", "2"},
                                 {"file", QJsonObject{{"size", m.size}}}});
    const QJsonObject account{{"token", QLatin1String(token)}, {"name", user}, {"media", media}};
    return QJsonDocument(QJsonObject{{"accounts", QJsonArray{account}}}).toJson();
}

quint32 stressSeed()
{
    bool ok = false;
    const quint32 given = qEnvironmentVariable("RXCM_STRESS_SEED").toUInt(&ok);
    return ok ? given : std::random_device()();
}

// "report/online, post/binding": what went upstream, in order.
QString summary(const QStringList &topics)
{
    QStringList kinds;
    for (const QString &topic : topics)
        kinds << topic.section(QLatin1Char('/'), 2, 2) + QLatin1Char('/') + topic.section(QLatin1Char('/'), -2, -2);
    return kinds.join(QLatin1String(", "));
}

} // namespace

class TestLifecycle : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void exitWhileBound();
    void logoutStorm();
    void doublePress();
    void seededStress();

private:
    bool startHost();
    bool attachBroker()
    {
        return !cloud.control("POST", "/control/mqtt", QJsonDocument(QJsonObject{{"url", broker.url()}})).isNull();
    }
    // The cloud's device service unbinds the device.
    bool unbind()
    {
        const QJsonObject message{{"kind", "unbinding"}, {"modelId", model}, {"sn", serial}};
        return !cloud.control("POST", "/control/mqtt/send", QJsonDocument(message)).isNull();
    }
    void writeSession();
    QStringList upstream();
    QString folder() const { return work->filePath(QStringLiteral("materials")); }
    bool downloadsSettled(const QList<Material> &materials);
    void verifyDownloads(const QList<Material> &materials);
    void finishHost(qint64 *elapsedMs = nullptr);

    Mosquitto broker;
    CloudSim cloud;
    std::unique_ptr<QTemporaryDir> work;
    std::unique_ptr<HostProcess> host;
};

void TestLifecycle::initTestCase()
{
    QVERIFY(broker.start());
    QVERIFY(cloud.start(scenario()));
    QVERIFY(attachBroker());
}

void TestLifecycle::init()
{
    work = std::make_unique<QTemporaryDir>();
    QVERIFY(work->isValid());
    QVERIFY(QDir().mkpath(work->filePath(QStringLiteral("config/cloud"))) && QDir().mkpath(folder()));
    // Where a deployed player finds its cloud: here, the local one.
    QFile config(work->filePath(QStringLiteral("config/cloud/config.json")));
    QVERIFY(config.open(QIODevice::WriteOnly));
    config.write(QStringLiteral(R"({"isRecordUsername":false,"username":"","nodes":"%1","mqttControl":"%2"})")
                     .arg(cloud.url(QStringLiteral("/nodes.json")), cloud.url(QStringLiteral("/mqtt/control/v1/")))
                     .toUtf8());
    config.close();
    writeSession();
    QVERIFY(!cloud.control("DELETE", "/control/mqtt/messages").isNull());
    QVERIFY(cloud.clearRequests());
}

void TestLifecycle::cleanup()
{
    host.reset();
}

// The session an earlier login saved; the cloud's unbinding empties it, so it is written again before a login.
void TestLifecycle::writeSession()
{
    QFile session(work->filePath(QStringLiteral("config/cloud/login.json")));
    QVERIFY(session.open(QIODevice::WriteOnly | QIODevice::Truncate));
    session.write(QStringLiteral(R"({"auth":"%1","username":"%2","countryCode":"","phone":"","email":"","id":1001,)"
                                 R"("currentNodeIdentity":"cn-1","currentNode":"%3"})")
                      .arg(QLatin1String(token), user, cloud.host())
                      .toUtf8());
}

bool TestLifecycle::startHost()
{
    host = std::make_unique<HostProcess>();
    return host->start(QStringLiteral(RXCM_LIFECYCLEHOST_PATH),
                       {QStringLiteral("--config"), work->filePath(QStringLiteral("config")),
                        QStringLiteral("--materials"), folder(), QStringLiteral("--ca"), cloud.caFile(),
                        QStringLiteral("--serial"), serial},
                       work->path());
}

// What reached the broker from devices, as the cloud's device service heard it; retained messages
// handed out at a (re)subscription are old news and left out.
QStringList TestLifecycle::upstream()
{
    const QJsonDocument heard = cloud.control("GET", "/control/mqtt/messages");
    if (!heard.isArray())
        QTest::qFail("the cloud's device service did not answer", __FILE__, __LINE__);
    QStringList topics;
    for (const auto &message : heard.array()) {
        if (!message.toObject().value("retained").toBool())
            topics << message.toObject().value("topic").toString();
    }
    return topics;
}

// Every material has arrived at least once and nothing is being written any more.
bool TestLifecycle::downloadsSettled(const QList<Material> &materials)
{
    if (!QDir(folder()).entryList({QStringLiteral("*.temp")}, QDir::Files | QDir::Hidden).isEmpty())
        return false;
    for (const Material &m : materials) {
        if (host->lines(QStringLiteral("downloaded ") + m.mid + QLatin1Char(' ')).isEmpty())
            return false;
    }
    return true;
}

// One signal and one transfer per material, an intact file in the material folder, no ".temp".
void TestLifecycle::verifyDownloads(const QList<Material> &materials)
{
    const QJsonArray requests = cloud.requests();
    for (const Material &m : materials) {
        const QString path = folder() + QLatin1Char('/') + m.name;
        int transfers = 0;
        for (const auto &request : requests)
            transfers +=
                request.toObject().value("path").toString().startsWith(QStringLiteral("/files/%1/").arg(m.mid));
        QFile file(path);
        QVERIFY2(file.open(QIODevice::ReadOnly) && file.readAll() == generatedContent(0, m.size), qPrintable(path));
        QCOMPARE(host->lines(QStringLiteral("downloaded ") + m.mid + QLatin1Char(' ')),
                 QStringList(QStringLiteral("downloaded %1 %2").arg(m.mid, path)));
        QCOMPARE(transfers, 1);
        QVERIFY2(!QFile::exists(path + QStringLiteral(".temp")), qPrintable(path));
    }
    // No signal for anything that was not asked for.
    QCOMPARE(host->lines(QStringLiteral("downloaded ")).size(), materials.size());
}

// Quits the host as a player quits: main() returns 0 with the module still holding its session.
void TestLifecycle::finishHost(qint64 *elapsedMs)
{
    qint64 elapsed = 0;
    const bool ended = host->quit(&elapsed);
    if (elapsedMs)
        *elapsedMs = elapsed;
    const QStringList reports = sanitizerReports(host->errors());
    const bool clean =
        ended && reports.isEmpty() && host->exitStatus() == QProcess::NormalExit && host->exitCode() == 0;
    if (!clean)
        host->dumpErrors();
    QVERIFY2(ended, "the host did not end within 60 s of being told to quit");
    QVERIFY2(reports.isEmpty(), qPrintable(QStringLiteral("sanitizer report: ") + reports.join(QLatin1String(", "))));
    QCOMPARE(host->exitStatus(), QProcess::NormalExit);
    QCOMPARE(host->exitCode(), 0);
    QCOMPARE(host->lines(QStringLiteral("error ")), QStringList());
}

void TestLifecycle::exitWhileBound()
{
    QVERIFY(startHost());
    QVERIFY(host->run(QStringLiteral("autologin")));
    QCOMPARE(host->count(QStringLiteral("login ") + user), 1);
    // Bound: the device service answered the binding request, and the device reported itself.
    QTRY_VERIFY_WITH_TIMEOUT(upstream().contains(basic), 30000);
    const QStringList seen = upstream();
    QVERIFY(seen.contains(bindingRequest) && seen.indexOf(bindingRequest) < seen.indexOf(basic));

    qint64 elapsed = 0;
    finishHost(&elapsed);
    if (QTest::currentTestFailed())
        return;
    qInfo("the host ended %lld ms after it was told to quit", elapsed);
    QVERIFY2(elapsed <= promisedExitMs + exitMarginMs,
             qPrintable(QStringLiteral("the host took %1 ms to end after quit").arg(elapsed)));
}

// Log in, wait a little, change the volume, clear: thirty times as fast as a host can. The
// messaging starts of ended sessions must not pile up and go on after the last clear().
void TestLifecycle::logoutStorm()
{
    const quint32 seed = stressSeed();
    qInfo("seed %u (replay with RXCM_STRESS_SEED=%u)", seed, seed);
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> pause(0, 160), volume(0, 99);
    QStringList commands;
    for (int cycle = 0; cycle < 30; ++cycle) {
        // The last clear() comes at once, in the middle of its session's messaging start.
        commands << QStringLiteral("autologin") << QStringLiteral("wait %1").arg(cycle < 29 ? pause(random) : 0)
                 << QStringLiteral("volume %1").arg(volume(random)) << QStringLiteral("clear");
    }

    QVERIFY(startHost());
    host->send(commands);
    QTRY_COMPARE_WITH_TIMEOUT(host->count(QStringLiteral("done clear")), 30, 120000);
    QElapsedTimer sinceClear;
    sinceClear.start();
    QCOMPARE(host->count(QStringLiteral("login ") + user), 30);

    // Watched for six seconds, while the host changes the volume and the cloud unbinds: whatever
    // arrives after the grace was sent for an ended session.
    QTest::qWait(int(graceMs));
    const QStringList early = upstream();
    qInfo().noquote() << "upstream until the end of the grace:" << summary(early);
    QVERIFY(host->run(QStringLiteral("volume 100")));
    QVERIFY(unbind());
    QTest::qWait(int(qMax<qint64>(0, 6000 - sinceClear.elapsed())));
    const QStringList all = upstream();
    QVERIFY2(all.size() == early.size(),
             qPrintable(QStringLiteral("upstream %1 ms and more after the last clear(): ").arg(graceMs)
                        + summary(all.mid(early.size()))));
    finishHost();
}

// Three materials selected, Download pressed twice in a row: each is fetched once.
void TestLifecycle::doublePress()
{
    const QList<Material> chosen = catalogue.mid(0, 3);
    QStringList names;
    for (const Material &m : chosen)
        names << m.name;

    QVERIFY(startHost());
    QVERIFY(host->run(QStringLiteral("autologin")));
    QTRY_VERIFY_WITH_TIMEOUT(host->names().size() == catalogue.size(), 30000);
    QVERIFY(host->run(QStringLiteral("select ") + names.join(QLatin1Char(' '))));
    QVERIFY(host->run(QStringLiteral("click downloadBtn 2")));
    // A second transfer of the same material would still be writing, or have left its ".temp".
    if (!QTest::qWaitFor([&] { return downloadsSettled(chosen); }, 30000))
        qWarning("the downloads did not settle; what they left follows");
    finishHost();
    verifyDownloads(chosen);
}

// A random order of what a host and the cloud do, each step left to settle, checked as it goes.
void TestLifecycle::seededStress()
{
    const quint32 seed = stressSeed();
    qInfo("seed %u (replay with RXCM_STRESS_SEED=%u)", seed, seed);
    std::mt19937 random(seed);
    QStringList steps;
    const auto replay = qScopeGuard([&] {
        if (!QTest::currentTestFailed())
            return;
        qWarning().noquote() << QStringLiteral("stress failed; replay with RXCM_STRESS_SEED=%1. Steps:\n  ").arg(seed)
                + steps.join(QLatin1String("\n  "));
        if (host)
            host->dumpErrors();
    });
    QElapsedTimer clock;
    clock.start();
    const auto step = [&](const QString &what) {
        steps << QStringLiteral("%1 ms: %2").arg(clock.elapsed(), 6).arg(what);
    };

    QVERIFY(startHost());
    bool live = false; // logged in, and neither cleared nor unbound since
    bool bindable = true; // not yet seen to stay unbound in this session
    int sessionStart = 0; // upstream messages before the session's login
    qint64 endedAt = clock.elapsed();
    int quietFrom = 0; // upstream messages when the grace after the session's end was over
    QList<Material> downloaded;
    QStringList topics;

    // Between the end of a session (and its grace) and the next login nothing may go upstream.
    const auto checkQuiet = [&] {
        if (live)
            return;
        topics = upstream();
        QVERIFY2(topics.size() == quietFrom,
                 qPrintable(QStringLiteral("upstream after the session ended at %1 ms: ").arg(endedAt)
                            + summary(topics.mid(quietFrom))));
    };
    const auto endSession = [&] {
        live = false;
        endedAt = clock.elapsed();
        QTest::qWait(int(graceMs));
        topics = upstream();
        quietFrom = int(topics.size());
    };
    const auto bound = [&] {
        const QStringList seen = upstream().mid(sessionStart);
        return live && seen.contains(bindingRequest) && seen.lastIndexOf(basic) > seen.lastIndexOf(bindingRequest);
    };

    enum Action { Login, Clear, Volume, Refresh, Download, Unbind, RestartBroker, Language, SwitchView };
    std::discrete_distribution<int> pick({3, 2, 2, 1, 3, 1, 1, 1, 1});
    const QStringList languages{QStringLiteral("zh_CN"), QStringLiteral("zh_TW"), QStringLiteral("en"),
                                QStringLiteral("korean"), QStringLiteral("russian")};
    while (clock.elapsed() < 35000) {
        checkQuiet();
        if (QTest::currentTestFailed())
            return;
        switch (Action(pick(random))) {
        case Login:
            if (live)
                break;
            // Some quiet to watch after every session, however soon the next one starts.
            QTest::qWait(int(qMax<qint64>(0, endedAt + 2 * graceMs - clock.elapsed())));
            checkQuiet();
            if (QTest::currentTestFailed())
                return;
            writeSession();
            step(QStringLiteral("autoLogin()"));
            topics = upstream();
            sessionStart = int(topics.size());
            QVERIFY(host->run(QStringLiteral("autologin")));
            QTRY_VERIFY(host->count(QStringLiteral("login ") + user)
                        == steps.filter(QStringLiteral("autoLogin()")).size());
            live = true;
            bindable = true;
            break;
        case Clear:
            step(QStringLiteral("clear()"));
            QVERIFY(host->run(QStringLiteral("clear")));
            if (live)
                endSession();
            break;
        case Volume: {
            const int volume = std::uniform_int_distribution<int>(0, 99)(random);
            step(QStringLiteral("updateVolume(%1)").arg(volume));
            QVERIFY(host->run(QStringLiteral("volume %1").arg(volume)));
            break;
        }
        case Refresh:
            step(QStringLiteral("refresh"));
            QVERIFY(host->run(QStringLiteral("click cloudRefreshButton")));
            break;
        case Download: {
            if (!live)
                break;
            QList<Material> candidates;
            for (const QString &name : host->names()) {
                const Material *m = byName(name);
                if (m && !QFile::exists(folder() + QLatin1Char('/') + name))
                    candidates << *m;
            }
            if (candidates.isEmpty())
                break;
            std::shuffle(candidates.begin(), candidates.end(), random);
            const QList<Material> chosen = candidates.mid(0, std::uniform_int_distribution<int>(1, 3)(random));
            QStringList names;
            for (const Material &m : chosen)
                names << m.name;
            step(QStringLiteral("Download pressed twice for ") + names.join(QLatin1Char(' ')));
            QVERIFY(host->run(QStringLiteral("select ") + names.join(QLatin1Char(' '))));
            QVERIFY(host->run(QStringLiteral("click downloadBtn 2")));
            downloaded += chosen;
            if (!QTest::qWaitFor([&] { return downloadsSettled(chosen); }, 30000))
                qWarning("the downloads did not settle; what they left follows");
            verifyDownloads(downloaded);
            break;
        }
        case Unbind: {
            // Sent to a device without a session as well: it must not answer any more.
            if (live && (!bindable || !QTest::qWaitFor(bound, 15000))) {
                // A start whose connection a broker restart broke reports nothing until the next one.
                if (bindable)
                    step(QStringLiteral("no unbinding: the device did not get bound in this session"));
                bindable = false;
                break;
            }
            step(QStringLiteral("the cloud unbinds the device") + (live ? QString() : QStringLiteral(" (no session)")));
            const int logouts = host->count(QStringLiteral("logout"));
            QVERIFY(unbind());
            if (!live)
                break;
            QTRY_VERIFY_WITH_TIMEOUT(host->count(QStringLiteral("logout")) > logouts, 30000);
            QVERIFY(upstream().mid(sessionStart).contains(unbindingConfirmation));
            endSession();
            break;
        }
        case Language: {
            // Whatever runs meanwhile (a start, downloads, the dialogs) goes on in the new language.
            const QString language = languages.at(std::uniform_int_distribution<int>(0, 4)(random));
            step(QStringLiteral("setCurrentLanguage(%1)").arg(language));
            QVERIFY(host->run(QStringLiteral("language ") + language));
            break;
        }
        case SwitchView:
            step(QStringLiteral("grid/table switch"));
            QVERIFY(host->run(QStringLiteral("click treeModeBtn")));
            break;
        case RestartBroker: {
            const bool wasBound = bound();
            step(QStringLiteral("broker restart"));
            topics = upstream();
            const int before = int(topics.size());
            QVERIFY(broker.restart());
            QVERIFY(attachBroker());
            // A bound device says it is back, over the retained will of the lost connection.
            if (wasBound)
                QTRY_VERIFY_WITH_TIMEOUT(upstream().mid(before).contains(online), 30000);
            break;
        }
        }
        if (QTest::currentTestFailed())
            return;
    }

    // The run ends as a player's session does: quit with the session running, or after a clear().
    if (live && std::bernoulli_distribution(0.5)(random)) {
        step(QStringLiteral("quit with the session running"));
    } else {
        if (live) {
            step(QStringLiteral("clear()"));
            QVERIFY(host->run(QStringLiteral("clear")));
            endSession();
            if (QTest::currentTestFailed())
                return;
        }
        // A device that stayed bound would report a volume it has not reported yet.
        step(QStringLiteral("updateVolume(100), then the last quiet, then quit"));
        QVERIFY(host->run(QStringLiteral("volume 100")));
        QTest::qWait(int(qMax<qint64>(0, endedAt + 6000 - clock.elapsed())));
        checkQuiet();
        if (QTest::currentTestFailed())
            return;
    }
    finishHost();
    if (QTest::currentTestFailed())
        return;
    verifyDownloads(downloaded);
    // A run that never logged in would have proved nothing.
    QVERIFY2(!steps.filter(QStringLiteral("autoLogin()")).isEmpty(), qPrintable(steps.join('\n')));
    qInfo().noquote() << steps.size() << "steps," << downloaded.size() << "materials downloaded in" << clock.elapsed()
                      << "ms";
}

QTEST_MAIN(TestLifecycle)
#include "tst_lifecycle.moc"
