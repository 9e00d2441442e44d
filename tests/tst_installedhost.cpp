// The minimal host of docs/integration.md, built against the installed library alone (by
// `cmake --install` and from the Debian packages; see install/run.cmake), run as a player runs:
// from its own bin/ folder, with a configuration folder that holds a saved session. It must
// resume the session against the local cloud and bring the device online on a real broker.

#include "localcloud/cloudsim.h"
#include "localcloud/mosquitto.h"

#include <QtTest>

#include <QProcess>

namespace {

const QString serial = QStringLiteral("SN-PLAYER-0001"); // the minimal host's serial number
const QString online = QStringLiteral("orbicloud/upstream/report/100001/") + serial + QStringLiteral("/device/online");

QByteArray scenario()
{
    const QJsonArray media{QJsonObject{{"mid", "m1"},
                                       {"mediaName", "intro.png"},
                                       {"mediaType", 0},
                                       {"approvalStatus", "2"},
                                       {"file", QJsonObject{{"size", 4000}}}}};
    const QJsonObject account{{"token", "tok-player"}, {"name", "ann"}, {"media", media}};
    return QJsonDocument(QJsonObject{{"accounts", QJsonArray{account}}}).toJson();
}

bool writeJson(const QString &path, const QJsonObject &object)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(QJsonDocument(object).toJson()) > 0;
}

} // namespace

class TestInstalledHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void resumesTheSavedSession_data();
    void resumesTheSavedSession();

private:
    Mosquitto broker;
    CloudSim cloud;
};

void TestInstalledHost::initTestCase()
{
    QVERIFY(broker.start());
    QVERIFY(cloud.start(scenario()));
    QVERIFY(!cloud.control("POST", "/control/mqtt", QJsonDocument(QJsonObject{{"url", broker.url()}})).isNull());
}

void TestInstalledHost::resumesTheSavedSession_data()
{
    QTest::addColumn<QString>("player");
    QTest::newRow("cmake --install") << QStringLiteral(RXCM_INSTALLED_PLAYER);
    QTest::newRow("Debian packages") << QStringLiteral(RXCM_PACKAGED_PLAYER);
}

void TestInstalledHost::resumesTheSavedSession()
{
    QFETCH(QString, player);
    QVERIFY2(QFileInfo(player).isExecutable(), qPrintable(player));
    QVERIFY(!cloud.control("DELETE", "/control/mqtt/messages").isNull());

    QTemporaryDir work;
    QVERIFY(QDir().mkpath(work.filePath(QStringLiteral("config/cloud"))));
    QVERIFY(QDir().mkpath(work.filePath(QStringLiteral("materials"))));
    QVERIFY(writeJson(work.filePath(QStringLiteral("config/cloud/config.json")),
                      {{"isRecordUsername", false},
                       {"username", ""},
                       {"nodes", cloud.url(QStringLiteral("/nodes.json"))},
                       {"mqttControl", cloud.url(QStringLiteral("/mqtt/control/v1/"))}}));
    QVERIFY(writeJson(work.filePath(QStringLiteral("config/cloud/login.json")),
                      {{"auth", "tok-player"},
                       {"username", "ann"},
                       {"countryCode", ""},
                       {"phone", ""},
                       {"email", ""},
                       {"id", 1001},
                       {"currentNodeIdentity", "cn-1"},
                       {"currentNode", cloud.host()}}));

    QProcess host;
    host.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    host.start(player,
               {work.filePath(QStringLiteral("config")), work.filePath(QStringLiteral("materials")), cloud.caFile()});
    QVERIFY(host.waitForStarted(30000));
    QByteArray said;
    const auto heard = [&](const QByteArray &line) {
        said += host.readAllStandardOutput();
        return said.contains(line);
    };
    QVERIFY2(QTest::qWaitFor([&] { return heard("logged in as ann\n") || host.state() == QProcess::NotRunning; }, 60000)
                 && heard("logged in as ann\n"),
             said.constData());

    // The messaging start of the resumed session: the device reports itself online.
    const auto reportedOnline = [&] {
        const QJsonDocument messages = cloud.control("GET", "/control/mqtt/messages");
        for (const auto &message : messages.array()) {
            if (message.toObject().value("topic").toString() == online)
                return true;
        }
        return false;
    };
    QVERIFY(QTest::qWaitFor(reportedOnline, 30000));
    // The host made the module write the calling codes into its configuration folder.
    QVERIFY(QFile::exists(work.filePath(QStringLiteral("config/cloud/config/countrycode.json"))));

    host.terminate();
    QVERIFY(host.waitForFinished(30000));
}

QTEST_GUILESS_MAIN(TestInstalledHost)
#include "tst_installedhost.moc"
