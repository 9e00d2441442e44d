// The proxy calls between the machines of a group: the argument codec against hand-written
// bytes and a second, independent encoder, every call of the channel end to end, the façade's
// use of it by role, and a download a client has the server carry out against the local cloud.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/configstore.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontrollerwrapper.h"
#include "cloudmaterial/multimachine/multimachineproxyclient.h"
#include "cloudmaterial/multimachine/multimachineproxyhandler.h"
#include "cloudmaterial/multimachine/multimachineproxyserver.h"
#include "cloudmaterial/multimachine/proxycodec.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "support/cloudsimfixture.h"
#include "support/fakeruntime.h"
#include "support/generatedcontent.h"
#include "support/logcapture.h"

#include <QtTest>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <functional>
#include <thread>

using namespace talvor::cloudmaterial;
using Role = FakeRuntime::Role;
using Args4 = std::tuple<std::string, std::string, std::string, bool>;

namespace {

const char *const mismatch = "unpack failed: Args not match!";

// Python's own msgpack, the system's build: the encoder our bytes are compared with.
QByteArray pythonPack(const QString &listExpression)
{
    QProcess python;
    python.start(QStringLiteral("/usr/bin/python3"),
                 {QStringLiteral("-c"),
                  QStringLiteral("import msgpack, sys; sys.stdout.buffer.write(msgpack.packb(%1))").arg(listExpression)});
    if (!python.waitForFinished(30000) || python.exitStatus() != QProcess::NormalExit || python.exitCode() != 0)
        qWarning() << "python3 failed:" << python.readAllStandardError();
    return python.readAllStandardOutput();
}

QByteArray bytes(const msgpack::sbuffer &buffer)
{
    return QByteArray(buffer.data(), int(buffer.size()));
}

Args4 unpack4(const QByteArray &payload)
{
    return proxycodec::unpack<std::string, std::string, std::string, bool>(payload.constData(),
                                                                           std::size_t(payload.size()));
}

// Hands the last message of that name that one side sent to the other side's handler.
bool carry(FakeRuntime &from, FakeRuntime &to, const std::string &name)
{
    const auto sent = from.sent();
    for (auto it = sent.rbegin(); it != sent.rend(); ++it) {
        if (it->name == name)
            return to.deliver(name, it->payload);
    }
    return false;
}

int mismatchLines(const LogCapture &log)
{
    int n = 0;
    static const QRegularExpression shape(QStringLiteral("^unpack failed: Args not match! \\n //proxycodec:unpack\\(\\)#\\d+\\.$"));
    for (const auto &line : log.linesStartingWith(mismatch)) {
        if (line.level != spdlog::level::err || !shape.match(QString::fromStdString(line.text)).hasMatch())
            return -1;
        ++n;
    }
    return n;
}

} // namespace

class TestProxy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void handWrittenPayloads_data();
    void handWrittenPayloads();
    void independentEncoder_data();
    void independentEncoder();
    void everyCallCrossesTheChannel();
    void shortPayloadsReachTheClient();
    void registrations();
    void facadeOnAClient();
    void facadeOnAServer();
    void downloadThroughTheServer();

private:
    QTemporaryDir configDir;
};

void TestProxy::initTestCase()
{
    QVERIFY(configDir.isValid());
    MainControllerWrapper::instance().setAppConfigPath(configDir.path().toStdString());
}

void TestProxy::handWrittenPayloads_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QStringList>("strings");
    QTest::addColumn<bool>("flag");
    QTest::addColumn<bool>("logged");
    const QStringList none{QString(), QString(), QString()};
    // fixarray 0x9N, fixstr 0xaN, str8 0xd9, bin8 0xc4, true 0xc3, false 0xc2, fixmap 0x8N.
    QTest::newRow("four") << QByteArray::fromHex("94a175a169a16ec3") << QStringList{"u", "i", "n"} << true << false;
    QTest::newRow("three leave false") << QByteArray::fromHex("93a175a169a16e") << QStringList{"u", "i", "n"} << false << false;
    QTest::newRow("empty array") << QByteArray::fromHex("90") << none << false << false;
    QTest::newRow("extra ignored") << QByteArray::fromHex("96a175a169a16ec3c001") << QStringList{"u", "i", "n"} << true << false;
    QTest::newRow("str8") << QByteArray::fromHex("94d903616263a0a0c2") << QStringList{"abc", "", ""} << false << false;
    QTest::newRow("array16") << QByteArray::fromHex("dc0004a0a0a0c3") << none << true << false;
    QTest::newRow("empty payload") << QByteArray() << none << false << true;
    QTest::newRow("map") << QByteArray::fromHex("81a161a162") << none << false << true;
    QTest::newRow("string as bool") << QByteArray::fromHex("94a175a169a16ea474727565") << none << false << true;
    QTest::newRow("integer as bool") << QByteArray::fromHex("94a175a169a16e01") << none << false << true;
    QTest::newRow("bin as string") << QByteArray::fromHex("94c40175a169a16ec3") << none << false << true;
    QTest::newRow("truncated") << QByteArray::fromHex("94a175a1") << none << false << true;
    // Claims four billion elements in five bytes: refused before anything is allocated.
    QTest::newRow("huge array header") << QByteArray::fromHex("ddffffffff") << none << false << true;
    QTest::newRow("deep nesting") << QByteArray(64, '\x91') + QByteArray::fromHex("c0") << none << false << true;
}

void TestProxy::handWrittenPayloads()
{
    QFETCH(QByteArray, payload);
    QFETCH(QStringList, strings);
    QFETCH(bool, flag);
    QFETCH(bool, logged);
    LogCapture log;
    const Args4 args = unpack4(payload);
    QCOMPARE(QString::fromStdString(std::get<0>(args)), strings.at(0));
    QCOMPARE(QString::fromStdString(std::get<1>(args)), strings.at(1));
    QCOMPARE(QString::fromStdString(std::get<2>(args)), strings.at(2));
    QCOMPARE(std::get<3>(args), flag);
    QCOMPARE(mismatchLines(log), logged ? 1 : 0);
}

void TestProxy::independentEncoder_data()
{
    QTest::addColumn<QString>("python");
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("flag");
    QTest::newRow("ascii") << "['https://h/files/m1/a.jpg', 'm1', 'a.jpg', True]"
                           << "https://h/files/m1/a.jpg" << "m1" << "a.jpg" << true;
    QTest::newRow("utf-8") << "['\\u7d20\\u6750', 'm-\\u00e9', '\\u89c6\\u9891.mp4', False]"
                           << QString::fromUtf8("素材") << QString::fromUtf8("m-é") << QString::fromUtf8("视频.mp4") << false;
    QTest::newRow("empty strings") << "['', '', '', True]" << "" << "" << "" << true;
    QTest::newRow("str8") << "['a' * 200, 'b', 'c', False]" << QString(200, 'a') << "b" << "c" << false;
    QTest::newRow("str16") << "['a' * 300, 'b' * 65535, 'c', True]" << QString(300, 'a') << QString(65535, 'b') << "c" << true;
    QTest::newRow("str32") << "['', 'x' * 70000, 'c', True]" << "" << QString(70000, 'x') << "c" << true;
}

void TestProxy::independentEncoder()
{
    QFETCH(QString, python);
    QFETCH(QString, address);
    QFETCH(QString, id);
    QFETCH(QString, name);
    QFETCH(bool, flag);
    const QByteArray theirs = pythonPack(python);
    QVERIFY(!theirs.isEmpty());

    LogCapture log;
    const Args4 args = unpack4(theirs);
    QCOMPARE(QString::fromStdString(std::get<0>(args)), address);
    QCOMPARE(QString::fromStdString(std::get<1>(args)), id);
    QCOMPARE(QString::fromStdString(std::get<2>(args)), name);
    QCOMPARE(std::get<3>(args), flag);
    QCOMPARE(mismatchLines(log), 0);

    // Both encoders choose the shortest form, so the bytes must be the same.
    const QByteArray ours = bytes(proxycodec::pack(address.toStdString(), id.toStdString(), name.toStdString(), flag));
    QCOMPARE(ours.toHex(), theirs.toHex());
}

void TestProxy::everyCallCrossesTheChannel()
{
    FakeRuntime serverSide(Role::ProxyServer);
    FakeRuntime clientSide(Role::ProxyClient);
    MultimachineProxyServer server(&serverSide);
    MultimachineProxyClient client(&clientSide);
    using Spy = std::unique_ptr<QSignalSpy>;
    const auto str = [](const char *text) { return QVariant::fromValue(std::string(text)); };

    struct Call
    {
        const char *name;
        bool fromClient;
        std::function<void()> send;
        std::function<Spy()> spy;
        QVariantList expected;
    };
    const std::vector<Call> calls = {
        {"StartMqtt", true, [&] { client.sendStartMqtt(); },
         [&] { return std::make_unique<QSignalSpy>(&server, &MultimachineProxyServer::sigStartMqtt); }, {}},
        {"QueryFileIsExist", true, [&] { client.sendQueryFileIsExist("m1", "a.jpg"); },
         [&] { return std::make_unique<QSignalSpy>(&server, &MultimachineProxyServer::sigQueryFileIsExist); },
         {str("m1"), str("a.jpg")}},
        {"DownloadFile", true, [&] { client.sendDownloadFile("https://h/a", "m2", "b.mp4"); },
         [&] { return std::make_unique<QSignalSpy>(&server, &MultimachineProxyServer::sigDownloadFile); },
         {str("https://h/a"), str("m2"), str("b.mp4")}},
        {"QueryFileIsExistRes", false, [&] { server.sendQueryFileIsExistRes("m3", "c.png", true); },
         [&] { return std::make_unique<QSignalSpy>(&client, &MultimachineProxyClient::sigQueryFileIsExistRes); },
         {str("m3"), str("c.png"), true}},
        {"DownloadFileRes", false, [&] { server.sendDownloadFileRes("https://h/d", "m4", "d.mp3", true); },
         [&] { return std::make_unique<QSignalSpy>(&client, &MultimachineProxyClient::sigDownloadFileRes); },
         {str("m4"), str("d.mp3"), true}},
        {"SetSerialNumber", false, [&] { server.sendSetSerialNumber("SN-1"); },
         [&] { return std::make_unique<QSignalSpy>(&client, &MultimachineProxyClient::sigSetSerialNumber); }, {str("SN-1")}},
        {"SetCurrentLanguage", false, [&] { server.sendSetCurrentLanguage("korean"); },
         [&] { return std::make_unique<QSignalSpy>(&client, &MultimachineProxyClient::sigSetCurrentLanguage); },
         {str("korean")}},
        {"SetDeviceName", false, [&] { server.sendSetDeviceName("Hall 2"); },
         [&] { return std::make_unique<QSignalSpy>(&client, &MultimachineProxyClient::sigSetDeviceName); }, {str("Hall 2")}},
        {"SetAppVersion", false, [&] { server.sendSetAppVersion("3.1.0"); },
         [&] { return std::make_unique<QSignalSpy>(&client, &MultimachineProxyClient::sigSetAppVersion); }, {str("3.1.0")}},
        // Nothing in the module sends this one; the host may.
        {"SetAppConfigPath", false, [&] { proxycodec::send(serverSide, "SetAppConfigPath", std::string("/etc/host")); },
         [&] { return std::make_unique<QSignalSpy>(&client, &MultimachineProxyClient::sigSetAppConfigPath); },
         {str("/etc/host")}},
    };

    LogCapture log;
    for (const Call &call : calls) {
        FakeRuntime &from = call.fromClient ? clientSide : serverSide;
        FakeRuntime &to = call.fromClient ? serverSide : clientSide;
        const Spy spy = call.spy();
        const std::size_t before = from.sent().size();
        call.send();
        QCOMPARE(from.sent().size(), before + 1);
        QCOMPARE(from.sent().back().name, std::string(call.name));
        QVERIFY2(carry(from, to, call.name), call.name);
        QCOMPARE(spy->count(), 1);
        const QList<QVariant> got = spy->at(0);
        QCOMPARE(got.size(), call.expected.size());
        for (int i = 0; i < got.size(); ++i) {
            if (call.expected.at(i).userType() == QMetaType::Bool)
                QCOMPARE(got.at(i).toBool(), call.expected.at(i).toBool());
            else
                QCOMPARE(got.at(i).value<std::string>(), call.expected.at(i).value<std::string>());
        }
    }
    QCOMPARE(mismatchLines(log), 0);
    // Requests carry a false in the answer's bool slot; a call without arguments is an empty array.
    QCOMPARE(QByteArray::fromStdString(clientSide.sent().at(0).payload).toHex(), QByteArray("90"));
    QCOMPARE(std::get<3>(unpack4(QByteArray::fromStdString(clientSide.sent().at(2).payload))), false);
    QCOMPARE(QByteArray::fromStdString(clientSide.sent().at(1).payload).toHex(), QByteArray("93a26d31a5612e6a7067c2"));
}

void TestProxy::shortPayloadsReachTheClient()
{
    FakeRuntime channel(Role::ProxyClient);
    MultimachineProxyClient client(&channel);
    QSignalSpy versions(&client, &MultimachineProxyClient::sigSetAppVersion);
    QSignalSpy downloads(&client, &MultimachineProxyClient::sigDownloadFileRes);
    QSignalSpy queries(&client, &MultimachineProxyClient::sigQueryFileIsExistRes);
    LogCapture log;

    QVERIFY(channel.deliver("SetAppVersion", std::string()));
    QCOMPARE(versions.count(), 1);
    QCOMPARE(versions.at(0).at(0).value<std::string>(), std::string());
    QCOMPARE(mismatchLines(log), 1);

    // An answer without its bool is a failed download.
    QVERIFY(channel.deliver("DownloadFileRes", QByteArray::fromHex("93a161a26d31a46e2e6a70").toStdString()));
    QCOMPARE(downloads.count(), 1);
    QCOMPARE(downloads.at(0).at(0).value<std::string>(), std::string("m1"));
    QCOMPARE(downloads.at(0).at(1).value<std::string>(), std::string("n.jp"));
    QCOMPARE(downloads.at(0).at(2).toBool(), false);

    QVERIFY(channel.deliver("QueryFileIsExistRes", QByteArray::fromHex("81a26d31c3").toStdString()));
    QCOMPARE(queries.count(), 1);
    QCOMPARE(queries.at(0).at(0).value<std::string>(), std::string());
    QCOMPARE(queries.at(0).at(2).toBool(), false);
    QCOMPARE(mismatchLines(log), 2);
}

void TestProxy::registrations()
{
    FakeRuntime channel(Role::ProxyServer);
    channel.registerMessageHandler("HostOwn", [](const char *, std::uint32_t) {});
    using Names = std::vector<std::string>;
    {
        MultimachineProxyServer server(&channel);
        QCOMPARE(channel.registeredNames(), (Names{"DownloadFile", "HostOwn", "QueryFileIsExist", "StartMqtt"}));
    }
    QCOMPARE(channel.registeredNames(), Names{"HostOwn"});
    {
        MultimachineProxyClient client(&channel);
        QCOMPARE(channel.registeredNames(),
                 (Names{"DownloadFileRes", "HostOwn", "QueryFileIsExistRes", "SetAppConfigPath", "SetAppVersion",
                        "SetCurrentLanguage", "SetDeviceName", "SetSerialNumber"}));
    }
    QCOMPARE(channel.registeredNames(), Names{"HostOwn"});
}

void TestProxy::facadeOnAClient()
{
    auto &wrapper = MainControllerWrapper::instance();
    auto &controller = MainController::instance();
    FakeRuntime channel(Role::ProxyClient);
    wrapper.setRXRuntime(&channel);
    QSignalSpy logins(&wrapper, &MainControllerWrapper::loginSuccess);

    TokenInfoJson session;
    session.auth = "t";
    session.username = "ann";
    ConfigStore::instance().setTokenInfo(session);
    Q_EMIT controller.loginController().sigLoginSucceeded();
    QCOMPARE(logins.count(), 1);
    const auto sent = channel.sent();
    QVERIFY(!sent.empty());
    QCOMPARE(sent.front().name, std::string("StartMqtt"));
    QCOMPARE(QByteArray::fromStdString(sent.front().payload).toHex(), QByteArray("90"));

    // The material controller asks the server instead of looking in its own folder.
    auto materials = controller.materialController();
    QSignalSpy answers(materials.get(), &CloudMaterialController::sigFileExistStatusChanged);
    Q_EMIT materials->sigCloudFileIsExist("m9", "z.png");
    QTRY_COMPARE(channel.sent().back().name, std::string("QueryFileIsExist"));
    const std::string query = channel.sent().back().payload;
    QCOMPARE((proxycodec::unpack<std::string, std::string, bool>(query.data(), query.size())),
             std::make_tuple(std::string("m9"), std::string("z.png"), false));
    QCOMPARE(answers.count(), 0);

    // The settings the server forwards are applied here, whatever thread brings them.
    std::thread host([&] {
        channel.deliver("SetAppVersion", bytes(proxycodec::pack(std::string("9.9"))).toStdString());
        channel.deliver("SetCurrentLanguage", bytes(proxycodec::pack(std::string("russian"))).toStdString());
        channel.deliver("SetSerialNumber", bytes(proxycodec::pack(std::string("SN-7"))).toStdString());
        channel.deliver("SetDeviceName", bytes(proxycodec::pack(std::string("Lobby"))).toStdString());
    });
    host.join();
    QTRY_COMPARE(controller.deviceName(), std::string("Lobby"));
    QCOMPARE(controller.appVersion(), std::string("9.9"));
    QCOMPARE(controller.currentLanguage(), std::string("ru_RU"));
    QCOMPARE(controller.serialNumber(), std::string("SN-7"));

    wrapper.setRXRuntime(nullptr);
    ConfigStore::instance().setTokenInfo(TokenInfoJson());
}

void TestProxy::facadeOnAServer()
{
    auto &wrapper = MainControllerWrapper::instance();
    auto &controller = MainController::instance();
    FakeRuntime channel(Role::ProxyServer);
    wrapper.setRXRuntime(&channel);

    wrapper.setAppVersion("2.0.1");
    wrapper.setDeviceName("Stage");
    wrapper.setSerialNumber("SN-42");
    wrapper.setCurrentLanguage("zh_TW");
    QCOMPARE(controller.appVersion(), std::string("2.0.1"));
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"SetAppVersion", "2.0.1"}, {"SetDeviceName", "Stage"}, {"SetSerialNumber", "SN-42"}, {"SetCurrentLanguage", "zh_TW"}};
    const auto sent = channel.sent();
    QCOMPARE(sent.size(), expected.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        QCOMPARE(sent[i].name, expected[i].first);
        QCOMPARE(std::get<0>(proxycodec::unpack<std::string>(sent[i].payload.data(), sent[i].payload.size())),
                 expected[i].second);
    }

    // A server neither sends nor starts anything on its own login; a client's request starts it.
    LogCapture log;
    QSignalSpy logins(&wrapper, &MainControllerWrapper::loginSuccess);
    Q_EMIT controller.loginSuccess("ann");
    QCOMPARE(logins.count(), 1);
    QCOMPARE(channel.sent().size(), expected.size());
    controller.workerPool()->enqueue([] {}).wait();
    QVERIFY(log.linesStartingWith("mqtt client id: ").empty());
    std::thread host([&] { channel.deliver("StartMqtt", "\x90"); });
    host.join();
    QTRY_COMPARE(log.linesStartingWith("mqtt client id: ").size(), std::size_t(1));

    wrapper.setRXRuntime(nullptr);
}

void TestProxy::downloadThroughTheServer()
{
    CloudSim cloud;
    const QJsonObject medium{{QStringLiteral("mid"), QStringLiteral("m1")},
                             {QStringLiteral("mediaName"), QStringLiteral("clip one.mp4")},
                             {QStringLiteral("approvalStatus"), QStringLiteral("2")},
                             {QStringLiteral("file"), QJsonObject{{QStringLiteral("size"), 5000}}}};
    const QJsonObject account{{QStringLiteral("token"), QStringLiteral("tok")},
                              {QStringLiteral("status"), QStringLiteral("success")},
                              {QStringLiteral("media"), QJsonArray{medium}}};
    QVERIFY(cloud.start(QJsonDocument(QJsonObject{{QStringLiteral("accounts"), QJsonArray{account}}}).toJson()));

    auto pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http(pool);
    QTemporaryDir clientFolder, serverFolder;
    const auto makeMaterials = [&](const QTemporaryDir &folder) {
        auto materials = std::make_shared<CloudMaterialController>(&http);
        materials->init();
        materials->setWorkerPool(pool);
        materials->setCloudMaterialFolderPath(folder.path().toStdString());
        return materials;
    };
    auto clientMaterials = makeMaterials(clientFolder);
    auto serverMaterials = makeMaterials(serverFolder);
    clientMaterials->setToken("tok");
    clientMaterials->setNode(cloud.host().toStdString());

    FakeRuntime clientSide(Role::ProxyClient);
    FakeRuntime serverSide(Role::ProxyServer);
    MultimachineProxyClient client(&clientSide);
    MultimachineProxyServer server(&serverSide);
    MultimachineProxyHandler clientHandler(&client, nullptr, &MainController::instance(), clientMaterials);
    MultimachineProxyHandler serverHandler(nullptr, &server, &MainController::instance(), serverMaterials);

    auto refreshed = clientMaterials->requestRefresh(true);
    QCOMPARE(refreshed.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    QTRY_COMPARE(clientMaterials->materials().size(), std::size_t(1));

    QSignalSpy states(clientMaterials.get(), &CloudMaterialController::materialDownloadStatusChanged);
    clientMaterials->downloadMaterial("m1");
    QCOMPARE(clientSide.sent().back().name, std::string("DownloadFile"));
    const std::string address = cloud.url(QStringLiteral("/files/m1/clip%20one.mp4")).toStdString();
    QCOMPARE(unpack4(QByteArray::fromStdString(clientSide.sent().back().payload)),
             (Args4{address, "m1", "clip one.mp4", false}));

    QVERIFY(carry(clientSide, serverSide, "DownloadFile"));
    QTRY_VERIFY_WITH_TIMEOUT(!serverSide.sent().empty(), 30000);
    QCOMPARE(serverSide.sent().back().name, std::string("DownloadFileRes"));
    QCOMPARE(unpack4(QByteArray::fromStdString(serverSide.sent().back().payload)),
             (Args4{address, "m1", "clip one.mp4", true}));
    QFile file(serverFolder.filePath(QStringLiteral("clip one.mp4")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), generatedContent(0, 5000));
    QVERIFY(!QFile::exists(clientFolder.filePath(QStringLiteral("clip one.mp4"))));

    // The answer arrives on the host channel's thread.
    std::thread host([&] { carry(serverSide, clientSide, "DownloadFileRes"); });
    host.join();
    QTRY_COMPARE(states.count(), 2);
    QCOMPARE(states.at(1).at(1).value<DownloadStatus>(), Successed);
    CloudMaterialModel row;
    QVERIFY(clientMaterials->material("m1", row));
    QCOMPARE(row.downloadStatus, int(Successed));

    // The existence check takes the same road and finds the server's copy.
    QSignalSpy exists(clientMaterials.get(), &CloudMaterialController::sigFileExistStatusChanged);
    Q_EMIT clientMaterials->sigCloudFileIsExist("m1", "clip one.mp4");
    QTRY_COMPARE(clientSide.sent().back().name, std::string("QueryFileIsExist"));
    QVERIFY(carry(clientSide, serverSide, "QueryFileIsExist"));
    QTRY_COMPARE(serverSide.sent().back().name, std::string("QueryFileIsExistRes"));
    QVERIFY(carry(serverSide, clientSide, "QueryFileIsExistRes"));
    QTRY_COMPARE(exists.count(), 1);
    QCOMPARE(exists.at(0).at(2).toBool(), true);

    // A name that would leave the server's folder is refused there, and answered as a failure.
    const std::size_t answered = serverSide.sent().size();
    serverSide.deliver("DownloadFile", bytes(proxycodec::pack(address, std::string("m6"), std::string("../x"), false))
                                           .toStdString());
    QTRY_COMPARE(serverSide.sent().size(), answered + 1);
    QCOMPARE(unpack4(QByteArray::fromStdString(serverSide.sent().back().payload)),
                 (Args4{address, "m6", "../x", false}));
    QVERIFY(!QFile::exists(QDir(serverFolder.path()).filePath(QStringLiteral("../x"))));
}

QTEST_MAIN(TestProxy)
#include "tst_proxy.moc"
