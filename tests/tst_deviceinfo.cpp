// Tests of the machine facts the device reports carry, the device topics and the exact JSON
// shape of every device message.

#include "cloudmaterial/devicebinding/deviceinformation.h"
#include "cloudmaterial/devicebinding/devicemessagejson.h"
#include "cloudmaterial/devicebinding/devicetopics.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QRegularExpression>
#include <QStorageInfo>
#include <QtTest>

#include <stdexcept>
#include <string>
#include <vector>

Q_DECLARE_METATYPE(std::string)

using namespace talvor::cloudmaterial;

namespace {

template<typename T>
std::string written(const T &record)
{
    ajson::string_stream ss;
    ajson::save_to(ss, record);
    return ss.str();
}

VolumeFacts volume(const QString &name, const QString &root, const QByteArray &fs, qint64 total = 1000,
                   qint64 available = 400, bool valid = true, bool ready = true)
{
    VolumeFacts v;
    v.valid = valid;
    v.ready = ready;
    v.name = name;
    v.rootPath = root;
    v.fileSystemType = fs;
    v.bytesTotal = total;
    v.bytesAvailable = available;
    return v;
}

} // namespace

class TestDeviceInfo : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void macAddress();
    void ipAddress();
    void diskRules_data();
    void diskRules();
    void diskRulesKeepOrderAndSizes();
    void diskListMatchesMountedVolumes();
    void volumeScalar_data();
    void volumeScalar();
    void volumeRange_data();
    void volumeRange();
    void systemVolumeNamesItsStep();
    void topics_data();
    void topics();
    void recordsWriteTheirFieldsInOrder();
    void envelopeReadsBack();
};

void TestDeviceInfo::macAddress()
{
    std::string expected;
    for (const QNetworkInterface &iface : QNetworkInterface::allInterfaces()) {
        if (iface.isValid() && !(iface.flags() & QNetworkInterface::IsLoopBack)) {
            expected = iface.hardwareAddress().toUpper().toStdString();
            break;
        }
    }
    const std::string mac = localMacAddress();
    QCOMPARE(mac, expected);
    // Upper-case hex pairs with colons, never the lower case the system prints.
    const QString text = QString::fromStdString(mac);
    QCOMPARE(text, text.toUpper());
    if (!mac.empty() && text.contains(QLatin1Char(':')))
        QVERIFY2(QRegularExpression(QStringLiteral("^([0-9A-F]{2}:)+[0-9A-F]{2}$")).match(text).hasMatch(), mac.c_str());
}

void TestDeviceInfo::ipAddress()
{
    QStringList collected;
    for (const QNetworkInterface &iface : QNetworkInterface::allInterfaces()) {
        if (!(iface.flags() & QNetworkInterface::IsRunning))
            continue;
        for (const QNetworkAddressEntry &entry : iface.addressEntries()) {
            const QHostAddress ip = entry.ip();
            if (ip.protocol() == QAbstractSocket::IPv4Protocol && ip.toString() != QLatin1String("127.0.0.1"))
                collected << ip.toString();
        }
    }
    const QString expected = collected.isEmpty() ? QStringLiteral("0.0.0.0") : collected.first();
    const std::string ip = localIpAddress();
    QCOMPARE(QString::fromStdString(ip), expected);
    QVERIFY(ip != "127.0.0.1");
    QVERIFY(QHostAddress(QString::fromStdString(ip)).protocol() == QAbstractSocket::IPv4Protocol);
}

void TestDeviceInfo::diskRules_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("root");
    QTest::addColumn<QByteArray>("fs");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<bool>("ready");
    QTest::addColumn<bool>("listed");
    QTest::addColumn<QString>("diskName");
    QTest::addColumn<QString>("type");

    QTest::newRow("windows ntfs") << "System" << "C:/" << QByteArray("NTFS") << true << true << true << "C" << "local";
    QTest::newRow("exfat stick") << "STICK" << "E:/" << QByteArray("exFAT") << true << true << true << "E" << "external";
    QTest::newRow("fat32 stick") << "OLD" << "F:/" << QByteArray("FAT32") << true << true << true << "F" << "local";
    QTest::newRow("exfat lower case") << "x" << "G:/" << QByteArray("exfat") << true << true << true << "G" << "local";
    QTest::newRow("EXFAT upper case") << "x" << "G:/" << QByteArray("EXFAT") << true << true << true << "G" << "local";
    QTest::newRow("unix root") << "/" << "/" << QByteArray("ext4") << true << true << true << "/" << "local";
    QTest::newRow("unix mount") << "usb" << "/media/usb" << QByteArray("exFAT") << true << true << true << "/media/usb" << "external";
    QTest::newRow("filecenter") << "filecenter" << "D:/" << QByteArray("NTFS") << true << true << false << "" << "";
    QTest::newRow("FileCenter") << "FileCenter" << "D:/" << QByteArray("NTFS") << true << true << false << "" << "";
    QTest::newRow("FILECENTER") << "FILECENTER" << "D:/" << QByteArray("exFAT") << true << true << false << "" << "";
    QTest::newRow("filecenter2") << "filecenter2" << "D:/" << QByteArray("NTFS") << true << true << true << "D" << "local";
    QTest::newRow("file center") << "file center" << "D:/" << QByteArray("NTFS") << true << true << true << "D" << "local";
    QTest::newRow("not valid") << "x" << "H:/" << QByteArray("NTFS") << false << true << false << "" << "";
    QTest::newRow("not ready") << "x" << "H:/" << QByteArray("NTFS") << true << false << false << "" << "";
}

void TestDeviceInfo::diskRules()
{
    QFETCH(QString, name);
    QFETCH(QString, root);
    QFETCH(QByteArray, fs);
    QFETCH(bool, valid);
    QFETCH(bool, ready);
    QFETCH(bool, listed);
    QFETCH(QString, diskName);
    QFETCH(QString, type);

    const auto disks = diskListFrom({volume(name, root, fs, 5000, 1200, valid, ready)});
    QCOMPARE(disks.size(), listed ? std::size_t(1) : std::size_t(0));
    if (!listed)
        return;
    QCOMPARE(QString::fromStdString(disks[0].name), name);
    QCOMPARE(QString::fromStdString(disks[0].diskName), diskName);
    QCOMPARE(QString::fromStdString(disks[0].type), type);
    QCOMPARE(disks[0].capability, std::int64_t(5000));
    QCOMPARE(disks[0].used, std::int64_t(3800));
}

void TestDeviceInfo::diskRulesKeepOrderAndSizes()
{
    const qint64 big = 4LL * 1024 * 1024 * 1024 * 1024; // beyond 32 bits
    const auto disks = diskListFrom({
        volume("b", "B:/", "NTFS", big, 1),
        volume("FileCenter", "X:/", "NTFS"),
        volume("a", "A:/", "exFAT", 10, 10),
        volume("c", "C:/", "NTFS", 7, 0, false),
    });
    QCOMPARE(disks.size(), std::size_t(2));
    QCOMPARE(disks[0].name, std::string("b"));
    QCOMPARE(disks[0].capability, std::int64_t(big));
    QCOMPARE(disks[0].used, std::int64_t(big - 1));
    QCOMPARE(disks[1].name, std::string("a"));
    QCOMPARE(disks[1].used, std::int64_t(0));
    QVERIFY(diskListFrom({}).empty());
}

void TestDeviceInfo::diskListMatchesMountedVolumes()
{
    std::vector<DiskJson> expected;
    for (const QStorageInfo &info : QStorageInfo::mountedVolumes()) {
        if (!info.isValid() || !info.isReady() || info.displayName().toLower() == QLatin1String("filecenter"))
            continue;
        DiskJson disk;
        disk.capability = info.bytesTotal();
        disk.name = info.displayName().toStdString();
        disk.diskName = info.rootPath().remove(QStringLiteral(":/")).toStdString();
        disk.type = info.fileSystemType() == "exFAT" ? "external" : "local";
        expected.push_back(disk);
    }
    const auto disks = diskList();
    QVERIFY(!disks.empty()); // the root file system at least
    QCOMPARE(disks.size(), expected.size());
    for (std::size_t i = 0; i < disks.size(); ++i) {
        QCOMPARE(disks[i].name, expected[i].name);
        QCOMPARE(disks[i].diskName, expected[i].diskName);
        QCOMPARE(disks[i].type, expected[i].type);
        QCOMPARE(disks[i].capability, expected[i].capability);
        // Free space moves while the test runs; what is used can never exceed the size.
        QVERIFY(disks[i].used >= 0);
        QVERIFY(disks[i].used <= disks[i].capability);
    }
}

void TestDeviceInfo::volumeScalar_data()
{
    QTest::addColumn<float>("scalar");
    QTest::addColumn<int>("percent");
    QTest::newRow("silent") << 0.0f << 0;
    QTest::newRow("half") << 0.5f << 50;
    QTest::newRow("0.999 truncates") << 0.999f << 99;
    QTest::newRow("0.015 truncates") << 0.015f << 1;
    QTest::newRow("full") << 1.0f << 100;
}

void TestDeviceInfo::volumeScalar()
{
    QFETCH(float, scalar);
    QFETCH(int, percent);
    QCOMPARE(volumeScalarToPercent(scalar), percent);
}

void TestDeviceInfo::volumeRange_data()
{
    QTest::addColumn<long>("min");
    QTest::addColumn<long>("max");
    QTest::addColumn<long>("value");
    QTest::addColumn<int>("percent");
    QTest::newRow("bottom") << 0L << 65536L << 0L << 0;
    QTest::newRow("one below top truncates") << 0L << 65536L << 65535L << 99;
    QTest::newRow("top") << 0L << 87L << 87L << 100;
    QTest::newRow("negative range") << -10L << 10L << 0L << 50;
    QTest::newRow("offset range") << 10L << 20L << 13L << 30;
    QTest::newRow("empty range") << 5L << 5L << 5L << 0;
}

void TestDeviceInfo::volumeRange()
{
    QFETCH(long, min);
    QFETCH(long, max);
    QFETCH(long, value);
    QFETCH(int, percent);
    QCOMPARE(volumeRangeToPercent(min, max, value), percent);
}

void TestDeviceInfo::systemVolumeNamesItsStep()
{
    const QStringList steps{"snd_mixer_open",
                            "snd_mixer_attach",
                            "snd_mixer_selem_register",
                            "snd_mixer_load",
                            "Master not found",
                            "snd_mixer_selem_get_playback_volume_range",
                            "snd_mixer_selem_get_playback_volume"};
    // Without any sound card the mixer cannot give a volume: the call must fail by name.
    const bool noSoundCard = !QFile::exists(QStringLiteral("/proc/asound/cards")) && !QDir(QStringLiteral("/dev/snd")).exists();
    try {
        const int percent = systemVolume();
        QVERIFY2(!noSoundCard, "a volume was read on a machine without a sound card");
        QVERIFY(percent >= 0 && percent <= 100);
    } catch (const std::runtime_error &e) {
        QVERIFY2(steps.contains(QString::fromUtf8(e.what())), e.what());
    }
}

void TestDeviceInfo::topics_data()
{
    namespace t = devicetopics;
    QTest::addColumn<std::string>("topic");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("online") << t::topic(t::upstreamReport, "M1", "S1", t::online)
                            << QByteArray("orbicloud/upstream/report/M1/S1/device/online");
    QTest::newRow("offline") << t::topic(t::upstreamReport, "M1", "S1", t::offline)
                             << QByteArray("orbicloud/upstream/report/M1/S1/device/offline");
    QTest::newRow("binding post") << t::topic(t::upstreamPost, "M1", "S1", t::binding)
                                  << QByteArray("orbicloud/upstream/post/M1/S1/binding/cirro");
    QTest::newRow("binding reply") << t::topic(t::downstreamReply, "M1", "S1", t::binding)
                                   << QByteArray("orbicloud/downstream/reply/M1/S1/binding/cirro");
    QTest::newRow("unbinding down") << t::topic(t::downstreamDelete, "M1", "S1", t::unbinding)
                                    << QByteArray("orbicloud/downstream/delete/M1/S1/unbinding/cirro");
    QTest::newRow("unbinding up") << t::topic(t::upstreamDelete, "M1", "S1", t::unbinding)
                                  << QByteArray("orbicloud/upstream/delete/M1/S1/unbinding/cirro");
    QTest::newRow("get storage") << t::topic(t::downstreamGet, "M1", "S1", t::storage)
                                 << QByteArray("orbicloud/downstream/get/M1/S1/device/storage");
    QTest::newRow("get basic") << t::topic(t::downstreamGet, "M1", "S1", t::basic)
                               << QByteArray("orbicloud/downstream/get/M1/S1/device/basic");
    QTest::newRow("get volume") << t::topic(t::downstreamGet, "M1", "S1", t::volume)
                                << QByteArray("orbicloud/downstream/get/M1/S1/device/volume");
    QTest::newRow("reply volume") << t::topic(t::upstreamReply, "M1", "S1", t::volume)
                                  << QByteArray("orbicloud/upstream/reply/M1/S1/device/volume");
    // Pieces are copied as they are: no trimming, escaping or case change.
    QTest::newRow("odd bytes") << t::topic(t::upstreamReport, " m/+", "s#\xC3\xA9", t::basic)
                               << QByteArray("orbicloud/upstream/report/ m/+/s#\xC3\xA9/device/basic");
    QTest::newRow("empty pieces") << t::topic(t::upstreamReport, "", "", t::storage)
                                  << QByteArray("orbicloud/upstream/report///device/storage");
}

void TestDeviceInfo::topics()
{
    QFETCH(std::string, topic);
    QFETCH(QByteArray, expected);
    QCOMPARE(QByteArray::fromStdString(topic), expected);
}

void TestDeviceInfo::recordsWriteTheirFieldsInOrder()
{
    BindingRequestMessage binding;
    binding.header = {"binding", "r-1", "1.0"};
    binding.body = {"u", "p", 0, "AA:BB", "S1", "M1", "dev", "custom", 1};
    QCOMPARE(written(binding),
             std::string(R"({"header":{"content":"binding","requestId":"r-1","version":"1.0"},)"
                         R"("body":{"username":"u","password":"p","passwordEncType":0,"mac":"AA:BB","sn":"S1",)"
                         R"("modelId":"M1","deviceName":"dev","customDeviceName":"custom","source":1}})"));

    BasicInfoMessage basic;
    basic.header = {"basic", "r-2", "1.0"};
    basic.body = {"orbi", "RM", "dev", "Talvor RM5", "custom", "M1", "S1", "AA", "10.0.0.2", "Linux", "2.1"};
    QCOMPARE(written(basic),
             std::string(R"({"header":{"content":"basic","requestId":"r-2","version":"1.0"},)"
                         R"("body":{"brand":"orbi","series":"RM","deviceName":"dev","productName":"Talvor RM5",)"
                         R"("customDeviceName":"custom","modelId":"M1","sn":"S1","mac":"AA","localIp":"10.0.0.2",)"
                         R"("platformSystem":"Linux","softwareMainVersion":"2.1"}})"));

    StorageInfoMessage storage;
    storage.header = {"storage", "r-3", "1.0"};
    storage.body.capability = 5000000000LL;
    storage.body.used = 7;
    storage.body.storage = {{5000000000LL, 6, "sys", "C", "local"}, {0, 1, "usb", "E", "external"}};
    QCOMPARE(written(storage),
             std::string(R"({"header":{"content":"storage","requestId":"r-3","version":"1.0"},)"
                         R"("body":{"capability":5000000000,"used":7,"storage":[)"
                         R"({"capability":5000000000,"used":6,"name":"sys","diskName":"C","type":"local"},)"
                         R"({"capability":0,"used":1,"name":"usb","diskName":"E","type":"external"}]}})"));

    VolumeInfoMessage volume;
    volume.header = {"volume", "r-4", "1.0"};
    volume.body.value = 42;
    QCOMPARE(written(volume), std::string(R"({"header":{"content":"volume","requestId":"r-4","version":"1.0"},)"
                                          R"("body":{"value":42}})"));

    OnlineMessage online;
    online.header = {"online", "r-5", "1.0"};
    online.body = {"online", "Linux"};
    QCOMPARE(written(online), std::string(R"({"header":{"content":"online","requestId":"r-5","version":"1.0"},)"
                                          R"("body":{"type":"online","platform":"Linux"}})"));

    OfflineMessage offline;
    offline.header = {"offline", "r-6", "1.0"};
    offline.body.timestamp = 1763769600123LL;
    QCOMPARE(written(offline), std::string(R"({"header":{"content":"offline","requestId":"r-6","version":"1.0"},)"
                                           R"("body":{"timestamp":1763769600123}})"));

    EmptyMessage empty;
    empty.header = {"unbinding", "r-7", "1.0"};
    QCOMPARE(written(empty), std::string(R"({"header":{"content":"unbinding","requestId":"r-7","version":"1.0"},)"
                                         R"("body":{"dummy":""}})"));
}

void TestDeviceInfo::envelopeReadsBack()
{
    // A get request from the cloud: only the header matters; unknown members are ignored.
    const std::string text = R"({"header":{"content":"get","requestId":"abc","version":"1.0"},"body":{"x":1}})";
    EmptyMessage request;
    ajson::load_from_buff_nothrow(request, text.c_str(), text.size());
    QCOMPARE(request.header.requestId, std::string("abc"));
    QCOMPARE(request.header.content, std::string("get"));

    StorageInfoMessage storage;
    const std::string stored = R"({"header":{"content":"storage"},"body":{"capability":9,"used":3,)"
                               R"("storage":[{"capability":9,"used":3,"name":"n","diskName":"d","type":"local"}]}})";
    ajson::load_from_buff_nothrow(storage, stored.c_str(), stored.size());
    QCOMPARE(storage.body.storage.size(), std::size_t(1));
    QCOMPARE(storage.body.storage[0].diskName, std::string("d"));
    QCOMPARE(storage.body.capability, std::int64_t(9));
}

QTEST_GUILESS_MAIN(TestDeviceInfo)
#include "tst_deviceinfo.moc"
