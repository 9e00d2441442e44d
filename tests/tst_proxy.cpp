// The proxy calls between the machines of a group: the argument codec against hand-written
// bytes and a second, independent encoder, every call of the channel end to end, the façade's
// use of it by role, and a download a client has the server carry out against the local cloud.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/configstore.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontroller_p.h"
#include "cloudmaterial/maincontrollerwrapper.h"
#include "cloudmaterial/multimachine/multimachineproxyclient.h"
#include "cloudmaterial/multimachine/multimachineproxyhandler.h"
#include "cloudmaterial/multimachine/multimachineproxyserver.h"
#include "cloudmaterial/multimachine/proxycodec.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "localcloud/cloudsim.h"
#include "support/fakeruntime.h"
#include "support/generatedcontent.h"
#include "support/logcapture.h"

#include <QtTest>

#include <thread>

using namespace talvor::cloudmaterial;
using Role = FakeRuntime::Role;
using Args4 = std::tuple<std::string, std::string, std::string, bool>;

namespace {

std::string packed(const std::string &value)
{
    const msgpack::sbuffer buffer = proxycodec::pack(value);
    return std::string(buffer.data(), buffer.size());
}

Args4 unpack4(const std::string &payload)
{
    return proxycodec::unpack<std::string, std::string, std::string, bool>(payload.data(), payload.size());
}

// Signal arguments as texts: strings as they are, bools as "true" or "false".
QStringList texts(const QList<QVariant> &args)
{
    QStringList out;
    for (const QVariant &arg : args)
        out << (arg.userType() == QMetaType::Bool ? QString::fromLatin1(arg.toBool() ? "true" : "false")
                                                  : QString::fromStdString(arg.value<std::string>()));
    return out;
}

// The name of the last message sent; empty before the first.
std::string lastSent(const FakeRuntime &runtime)
{
    const auto sent = runtime.sent();
    return sent.empty() ? std::string() : sent.back().name;
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

// The promised error line, at error level with the location suffix; -1 for any other shape.
int mismatchLines(const LogCapture &log)
{
    static const QRegularExpression shape(
        QStringLiteral("^unpack failed: Args not match! \\n //proxycodec:unpack\\(\\)#\\d+\\.$"));
    const auto lines = log.linesStartingWith("unpack failed: Args not match!");
    const auto good = std::count_if(lines.begin(), lines.end(), [](const auto &line) {
        return line.level == spdlog::level::err && shape.match(QString::fromStdString(line.text)).hasMatch();
    });
    return std::size_t(good) == lines.size() ? int(good) : -1;
}

} // namespace

class TestProxy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void codec_data();
    void codec();
    void everyCallCrossesTheChannel();
    void facadeByRole();
    void serverAnswersForTheClient();
    void serverSharesOneDownload();

private:
    QTemporaryDir configDir;
};

void TestProxy::initTestCase()
{
    QVERIFY(configDir.isValid());
    MainControllerWrapper::instance().setAppConfigPath(configDir.path().toStdString());
}

void TestProxy::codec_data()
{
    QTest::addColumn<QByteArray>("payload"); // hand-written bytes, or
    QTest::addColumn<QString>("python"); // a list that Python's own msgpack packs
    QTest::addColumn<QStringList>("strings");
    QTest::addColumn<bool>("flag");
    QTest::addColumn<bool>("logged");
    const QStringList none{QString(), QString(), QString()}, uin{"u", "i", "n"};
    // fixarray 0x9N, fixstr 0xaN, str8 0xd9, bin8 0xc4, true 0xc3, false 0xc2, fixmap 0x8N.
    QTest::newRow("four") << QByteArray::fromHex("94a175a169a16ec3") << QString() << uin << true << false;
    QTest::newRow("three leave false") << QByteArray::fromHex("93a175a169a16e") << QString() << uin << false << false;
    QTest::newRow("empty array") << QByteArray::fromHex("90") << QString() << none << false << false;
    QTest::newRow("extra ignored") << QByteArray::fromHex("96a175a169a16ec3c001") << QString() << uin << true << false;
    QTest::newRow("array16") << QByteArray::fromHex("dc0004a0a0a0c3") << QString() << none << true << false;
    QTest::newRow("empty payload") << QByteArray() << QString() << none << false << true;
    QTest::newRow("map") << QByteArray::fromHex("81a161a162") << QString() << none << false << true;
    QTest::newRow("string as bool") << QByteArray::fromHex("94a175a169a16ea474727565") << QString() << none << false
                                    << true;
    QTest::newRow("integer as bool") << QByteArray::fromHex("94a175a169a16e01") << QString() << none << false << true;
    QTest::newRow("bin as string") << QByteArray::fromHex("94c40175a169a16ec3") << QString() << none << false << true;
    QTest::newRow("truncated") << QByteArray::fromHex("94a175a1") << QString() << none << false << true;
    // Claims four billion elements in five bytes: refused before anything is allocated.
    QTest::newRow("huge array header") << QByteArray::fromHex("ddffffffff") << QString() << none << false << true;
    QTest::newRow("deep nesting") << QByteArray(64, '\x91') + QByteArray::fromHex("c0") << QString() << none << false
                                  << true;
    // str8, str16 and str32 headers in one call.
    QTest::newRow("python lengths") << QByteArray() << "['a' * 200, 'b' * 65535, 'x' * 70000, True]"
                                    << QStringList{QString(200, 'a'), QString(65535, 'b'), QString(70000, 'x')} << true
                                    << false;
    QTest::newRow("python utf-8") << QByteArray() << "['\\u7d20\\u6750', 'm-\\u00e9', '', False]"
                                  << QStringList{QString::fromUtf8("素材"), QString::fromUtf8("m-é"), ""} << false
                                  << false;
}

void TestProxy::codec()
{
    QFETCH(QByteArray, payload);
    QFETCH(QString, python);
    QFETCH(QStringList, strings);
    QFETCH(bool, flag);
    QFETCH(bool, logged);
    if (!python.isEmpty()) {
        QProcess encoder;
        encoder.start(
            QStringLiteral("/usr/bin/python3"),
            {"-c", QStringLiteral("import msgpack, sys; sys.stdout.buffer.write(msgpack.packb(%1))").arg(python)});
        QVERIFY2(encoder.waitForFinished(30000) && encoder.exitCode() == 0, encoder.readAllStandardError());
        payload = encoder.readAllStandardOutput();
        // Both encoders choose the shortest form, so the bytes must be the same.
        const msgpack::sbuffer ours =
            proxycodec::pack(strings[0].toStdString(), strings[1].toStdString(), strings[2].toStdString(), flag);
        QCOMPARE(QByteArray(ours.data(), int(ours.size())).toHex(), payload.toHex());
    }
    LogCapture log;
    const Args4 args = unpack4(payload.toStdString());
    QCOMPARE(QStringList({QString::fromStdString(std::get<0>(args)), QString::fromStdString(std::get<1>(args)),
                          QString::fromStdString(std::get<2>(args))}),
             strings);
    QCOMPARE(std::get<3>(args), flag);
    QCOMPARE(mismatchLines(log), logged ? 1 : 0);
}

void TestProxy::everyCallCrossesTheChannel()
{
    FakeRuntime serverSide(Role::ProxyServer), clientSide(Role::ProxyClient);
    serverSide.registerMessageHandler("HostOwn", [](const char *, std::uint32_t) {});
    {
        auto server = std::make_unique<MultimachineProxyServer>(&serverSide);
        MultimachineProxyClient client(&clientSide);
        QCOMPARE(serverSide.registeredNames(),
                 (std::vector<std::string>{"DownloadFile", "HostOwn", "QueryFileIsExist", "StartMqtt"}));
        struct Call
        {
            const char *name;
            std::function<void()> send;
            QObject *receiver;
            const char *signal;
            QStringList expected;
        };
        const std::vector<Call> calls = {
            {"StartMqtt", [&] { client.sendStartMqtt(); }, server.get(), SIGNAL(sigStartMqtt()), {}},
            {"QueryFileIsExist",
             [&] { client.sendQueryFileIsExist("m1", "a.jpg"); },
             server.get(),
             SIGNAL(sigQueryFileIsExist(std::string, std::string)),
             {"m1", "a.jpg"}},
            {"DownloadFile",
             [&] { client.sendDownloadFile("https://h/a", "m2", "b.mp4"); },
             server.get(),
             SIGNAL(sigDownloadFile(std::string, std::string, std::string)),
             {"https://h/a", "m2", "b.mp4"}},
            {"QueryFileIsExistRes",
             [&] { server->sendQueryFileIsExistRes("m3", "c.png", true); },
             &client,
             SIGNAL(sigQueryFileIsExistRes(std::string, std::string, bool)),
             {"m3", "c.png", "true"}},
            {"DownloadFileRes",
             [&] { server->sendDownloadFileRes("https://h/d", "m4", "d.mp3", true); },
             &client,
             SIGNAL(sigDownloadFileRes(std::string, std::string, bool)),
             {"m4", "d.mp3", "true"}},
            {"SetSerialNumber",
             [&] { server->sendSetSerialNumber("SN-1"); },
             &client,
             SIGNAL(sigSetSerialNumber(std::string)),
             {"SN-1"}},
            {"SetCurrentLanguage",
             [&] { server->sendSetCurrentLanguage("korean"); },
             &client,
             SIGNAL(sigSetCurrentLanguage(std::string)),
             {"korean"}},
            {"SetDeviceName",
             [&] { server->sendSetDeviceName("Hall 2"); },
             &client,
             SIGNAL(sigSetDeviceName(std::string)),
             {"Hall 2"}},
            {"SetAppVersion",
             [&] { server->sendSetAppVersion("3.1.0"); },
             &client,
             SIGNAL(sigSetAppVersion(std::string)),
             {"3.1.0"}},
            // Nothing in the module sends this one; the host may.
            {"SetAppConfigPath",
             [&] { proxycodec::send(serverSide, "SetAppConfigPath", std::string("/etc/host")); },
             &client,
             SIGNAL(sigSetAppConfigPath(std::string)),
             {"/etc/host"}},
        };
        LogCapture log;
        for (const Call &call : calls) {
            const bool fromClient = call.receiver == server.get();
            FakeRuntime &from = fromClient ? clientSide : serverSide;
            QSignalSpy spy(call.receiver, call.signal);
            call.send();
            QCOMPARE(from.sent().back().name, std::string(call.name));
            QVERIFY2(carry(from, fromClient ? serverSide : clientSide, call.name), call.name);
            QCOMPARE(spy.count(), 1);
            QCOMPARE(texts(spy.at(0)), call.expected);
        }
        QCOMPARE(mismatchLines(log), 0);
        QCOMPARE(serverSide.sent().size() + clientSide.sent().size(), calls.size());
        // Requests carry a false in the answer's bool slot; a call without arguments is an empty array.
        QCOMPARE(QByteArray::fromStdString(clientSide.sent().at(0).payload).toHex(), QByteArray("90"));
        QCOMPARE(QByteArray::fromStdString(clientSide.sent().at(1).payload).toHex(),
                 QByteArray("93a26d31a5612e6a7067c2"));

        // An empty payload reaches the client as an empty value, with the error line.
        QSignalSpy versions(&client, &MultimachineProxyClient::sigSetAppVersion);
        QVERIFY(clientSide.deliver("SetAppVersion", std::string()));
        QCOMPARE(texts(versions.at(0)), QStringList{QString()});
        QCOMPARE(mismatchLines(log), 1);
        server.reset();
        QCOMPARE(serverSide.registeredNames(), std::vector<std::string>{"HostOwn"}); // the host's own outlive ours
    }
    QCOMPARE(clientSide.registeredNames(), std::vector<std::string>());
}

void TestProxy::facadeByRole()
{
    auto &wrapper = MainControllerWrapper::instance();
    auto &controller = MainController::instance();
    LogCapture log;
    {
        // A client asks the server to start, and asks it about files instead of looking in its own folder.
        FakeRuntime channel(Role::ProxyClient);
        wrapper.setRXRuntime(&channel);
        TokenInfoJson session;
        session.auth = "t";
        ConfigStore::instance().setTokenInfo(session);
        Q_EMIT MainControllerInternals::loginController(controller).sigLoginSucceeded();
        QCOMPARE(channel.sent().at(0).name, std::string("StartMqtt"));
        Q_EMIT MainControllerInternals::materialController(controller)->sigCloudFileIsExist("m9", "z.png");
        QTRY_COMPARE(lastSent(channel), std::string("QueryFileIsExist"));
        // The settings the server forwards are applied here, whatever thread brings them.
        std::thread([&] { channel.deliver("SetDeviceName", packed("Lobby")); }).join();
        QTRY_COMPARE(controller.deviceName(), std::string("Lobby"));
        ConfigStore::instance().setTokenInfo(TokenInfoJson());
        QVERIFY(log.linesStartingWith("mqtt client id: ").empty());
        MainControllerInternals::workerPool(controller)->enqueue([] {}).wait();
        wrapper.setRXRuntime(nullptr);
    }
    // A server starts nothing on its own login, only on a client's request, and forwards its settings.
    FakeRuntime channel(Role::ProxyServer);
    wrapper.setRXRuntime(&channel);
    Q_EMIT controller.loginSuccess("ann");
    MainControllerInternals::workerPool(controller)->enqueue([] {}).wait();
    QVERIFY(channel.sent().empty());
    QVERIFY(log.linesStartingWith("mqtt client id: ").empty());
    std::thread([&] { channel.deliver("StartMqtt", "\x90"); }).join();
    QTRY_COMPARE(log.linesStartingWith("mqtt client id: ").size(), std::size_t(1));
    wrapper.setDeviceName("Stage");
    QCOMPARE(channel.sent().back().name, std::string("SetDeviceName"));
    QCOMPARE(channel.sent().back().payload, packed("Stage"));
    wrapper.setRXRuntime(nullptr);
}

// The download itself through the server runs end to end in the demo's group test; here the answers.
void TestProxy::serverAnswersForTheClient()
{
    auto pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http(pool);
    QTemporaryDir clientFolder, serverFolder;
    const auto makeMaterials = [&](const QTemporaryDir &folder) {
        auto materials = std::make_shared<CloudMaterialController>(&http, nullptr);
        materials->init();
        materials->setWorkerPool(pool);
        materials->setCloudMaterialFolderPath(folder.path().toStdString());
        return materials;
    };
    auto clientMaterials = makeMaterials(clientFolder), serverMaterials = makeMaterials(serverFolder);
    FakeRuntime clientSide(Role::ProxyClient), serverSide(Role::ProxyServer);
    MultimachineProxyClient client(&clientSide);
    MultimachineProxyServer server(&serverSide);
    MultimachineProxyHandler clientHandler(&client, nullptr, ProxyModuleCalls(), clientMaterials);
    MultimachineProxyHandler serverHandler(nullptr, &server, ProxyModuleCalls(), serverMaterials);

    // The existence check finds the server's copy, not the client's.
    QVERIFY(QFile(serverFolder.filePath(QStringLiteral("clip one.mp4"))).open(QIODevice::WriteOnly));
    QSignalSpy exists(clientMaterials.get(), &CloudMaterialController::sigFileExistStatusChanged);
    Q_EMIT clientMaterials->sigCloudFileIsExist("m1", "clip one.mp4");
    QTRY_COMPARE(lastSent(clientSide), std::string("QueryFileIsExist"));
    QVERIFY(carry(clientSide, serverSide, "QueryFileIsExist"));
    QTRY_COMPARE(lastSent(serverSide), std::string("QueryFileIsExistRes"));
    std::thread([&] { carry(serverSide, clientSide, "QueryFileIsExistRes"); }).join(); // the host channel's thread
    QTRY_COMPARE(exists.count(), 1);
    QCOMPARE(texts(exists.at(0)), (QStringList{"m1", "clip one.mp4", "true"}));

    // A name that would leave the server's folder is refused there, and answered as a failure.
    // Named after this run's folder, so that nothing else in its parent can answer for it.
    const std::string escape = "../" + QFileInfo(serverFolder.path()).fileName().toStdString() + "-escaped";
    const msgpack::sbuffer hostile = proxycodec::pack(std::string("https://h/x"), std::string("m6"), escape, false);
    LogCapture log;
    QVERIFY(serverSide.deliver("DownloadFile", std::string(hostile.data(), hostile.size())));
    QTRY_COMPARE(lastSent(serverSide), std::string("DownloadFileRes"));
    QCOMPARE(unpack4(serverSide.sent().back().payload), (Args4{"https://h/x", "m6", escape, false}));
    QCOMPARE(log.linesStartingWith("refused to download m6").size(), std::size_t(1));
    QVERIFY(!QFile::exists(QDir(serverFolder.path()).filePath(QString::fromStdString(escape))));
}

// Two clients and the server itself want the same file: one download, and every asker hears of it.
void TestProxy::serverSharesOneDownload()
{
    CloudSim cloud;
    const QJsonObject medium{
        {"mid", "m1"}, {"mediaName", "clip.mp4"}, {"approvalStatus", "2"}, {"file", QJsonObject{{"size", 40000}}}};
    const QJsonObject account{{"token", "tok-group"}, {"media", QJsonArray{medium}}};
    QVERIFY(cloud.start(QJsonDocument(QJsonObject{{"accounts", QJsonArray{account}}}).toJson()));
    // A second long, so the first request is still running when the others come.
    QVERIFY(cloud.addFault({{"kind", "slow"}, {"prefix", "/files/"}, {"bytes_per_second", 40000}}));
    auto pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http(pool);
    CurrentNode node;
    node.set(cloud.host().toStdString(), "node-1");
    QTemporaryDir folder;
    auto materials = std::make_shared<CloudMaterialController>(&http, &node);
    materials->init();
    materials->setWorkerPool(pool);
    materials->setToken("tok-group");
    materials->setCloudMaterialFolderPath(folder.path().toStdString());
    materials->requestRefresh(true).wait();
    CloudMaterialModel row;
    QTRY_VERIFY(materials->material("m1", row));

    FakeRuntime serverSide(Role::ProxyServer), firstSide(Role::ProxyClient), secondSide(Role::ProxyClient);
    MultimachineProxyServer server(&serverSide);
    MultimachineProxyHandler handler(nullptr, &server, ProxyModuleCalls(), materials);
    MultimachineProxyClient first(&firstSide), second(&secondSide);
    QSignalSpy firstAnswers(&first, &MultimachineProxyClient::sigDownloadFileRes);
    QSignalSpy secondAnswers(&second, &MultimachineProxyClient::sigDownloadFileRes);
    QSignalSpy hostSignal(materials.get(), &CloudMaterialController::sigDownloadSuccess);
    QSignalSpy progress(materials.get(), &CloudMaterialController::materialDownloadProgress);
    const std::string address = cloud.url(QStringLiteral("/files/m1/clip.mp4")).toStdString();
    const auto answers = [&] {
        std::vector<Args4> out;
        for (const auto &message : serverSide.sent()) {
            if (message.name == "DownloadFileRes")
                out.push_back(unpack4(message.payload));
        }
        return out;
    };

    first.sendDownloadFile(address, "m1", "clip.mp4");
    QVERIFY(carry(firstSide, serverSide, "DownloadFile"));
    QTRY_VERIFY(!progress.isEmpty());
    second.sendDownloadFile(address, "m1", "clip.mp4");
    QVERIFY(carry(secondSide, serverSide, "DownloadFile"));
    materials->downloadMaterial("m1");
    QTRY_COMPARE_WITH_TIMEOUT(hostSignal.count(), 1, 30000);
    QVERIFY(!answers().empty());
    for (const Args4 &answer : answers())
        QCOMPARE(answer, (Args4{address, "m1", "clip.mp4", true}));
    QVERIFY(carry(serverSide, firstSide, "DownloadFileRes") && carry(serverSide, secondSide, "DownloadFileRes"));
    for (const QSignalSpy *spy : {&firstAnswers, &secondAnswers}) {
        QCOMPARE(spy->count(), 1);
        QCOMPARE(texts(spy->at(0)), (QStringList{"m1", "clip.mp4", "true"}));
    }
    int fileRequests = 0;
    for (const auto &request : cloud.requests())
        fileRequests += request.toObject().value("path").toString().startsWith(QLatin1String("/files/"));
    QCOMPARE(fileRequests, 1);
    QFile file(folder.filePath(QStringLiteral("clip.mp4")));
    QVERIFY(file.open(QIODevice::ReadOnly) && file.readAll() == generatedContent(0, 40000));
    QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("clip.mp4")});

    // Every client was answered: the server's next download of its own is nobody else's business.
    const std::size_t answered = answers().size();
    QVERIFY(QFile::remove(file.fileName()));
    materials->downloadMaterial("m1");
    QTRY_COMPARE_WITH_TIMEOUT(hostSignal.count(), 2, 30000);
    QCOMPARE(answers().size(), answered);

    // Asked again once the file is there: answered from the folder, nothing fetched.
    QVERIFY(cloud.clearRequests());
    const std::size_t before = answers().size();
    QVERIFY(carry(firstSide, serverSide, "DownloadFile"));
    QTRY_COMPARE(answers().size(), before + 1);
    QCOMPARE(answers().back(), (Args4{address, "m1", "clip.mp4", true}));
    QCOMPARE(cloud.requests().size(), 0);
    QCOMPARE(hostSignal.count(), 2);
}

QTEST_MAIN(TestProxy)
#include "tst_proxy.moc"
