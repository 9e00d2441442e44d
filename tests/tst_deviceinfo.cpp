// The machine facts the device reports carry, the device topics and the exact text of every
// device message (tst_devicebinding checks what the device fills in).

#include "cloudmaterial/devicebinding/deviceinformation.h"
#include "cloudmaterial/devicebinding/devicemessagejson.h"
#include "cloudmaterial/devicebinding/devicetopics.h"
#include "cloudmaterial/stdstringmetatype_p.h"

#include <QtTest>

using namespace talvor::cloudmaterial;
namespace t = talvor::cloudmaterial::devicetopics;

namespace {

template<typename T>
std::string written(T record, const char *content)
{
    record.header = {content, "r-1", "1.0"};
    ajson::string_stream ss;
    ajson::save_to(ss, record);
    return ss.str();
}

using Interfaces = std::vector<InterfaceFacts>;

InterfaceFacts iface(bool valid, bool loopback, bool running, const char *mac,
                     std::initializer_list<const char *> ips = {})
{
    InterfaceFacts facts{valid, loopback, running, QString::fromLatin1(mac), {}};
    for (const char *ip : ips)
        facts.addresses.emplace_back(QString::fromLatin1(ip));
    return facts;
}

} // namespace

Q_DECLARE_METATYPE(Interfaces)

class TestDeviceInfo : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void interfaceFacts_data();
    void interfaceFacts();
    void diskRules_data();
    void diskRules();
    void volumePercent();
    void topicsAndRecords_data();
    void topicsAndRecords();
};

void TestDeviceInfo::interfaceFacts_data()
{
    QTest::addColumn<Interfaces>("interfaces");
    QTest::addColumn<std::string>("mac");
    QTest::addColumn<std::string>("ip");
    // MAC: the first valid interface that is not the loopback, in upper case, running or not.
    // IPv4: the first address other than 127.0.0.1 of a running interface, in the listed order.
    QTest::newRow("none") << Interfaces{} << std::string() << std::string("0.0.0.0");
    QTest::newRow("loopback only") << Interfaces{iface(true, true, true, "00:00:00:00:00:00", {"127.0.0.1", "::1"})}
                                   << std::string() << std::string("0.0.0.0");
    QTest::newRow("first after loopback")
        << Interfaces{iface(true, true, true, "00:00:00:00:00:00"),
                      iface(true, false, false, "aa:bb:cc:dd:ee:0f", {"192.168.1.2"}),
                      iface(true, false, true, "11:22:33:44:55:66", {"fe80::1", "172.16.0.3", "10.0.0.8"})}
        << std::string("AA:BB:CC:DD:EE:0F") << std::string("172.16.0.3");
    QTest::newRow("invalid skipped") << Interfaces{iface(false, false, true, "de:ad:be:ef:00:01", {"10.1.1.1"}),
                                                   iface(true, false, true, "02:42:ac:11:00:02", {"1.2.3.4"})}
                                     << std::string("02:42:AC:11:00:02") << std::string("10.1.1.1");
    // Taken even without a hardware address (a tunnel): there is no second choice. Only
    // 127.0.0.1 is left out, not the rest of its network, and the loopback flag does not count.
    QTest::newRow("empty address kept") << Interfaces{iface(true, true, true, "00", {"127.0.0.1", "127.0.1.1"}),
                                                      iface(true, false, true, ""),
                                                      iface(true, false, true, "02:42:ac:11:00:02")}
                                        << std::string() << std::string("127.0.1.1");
}

void TestDeviceInfo::interfaceFacts()
{
    QFETCH(Interfaces, interfaces);
    QFETCH(std::string, mac);
    QFETCH(std::string, ip);
    QCOMPARE(macAddressFrom(interfaces), mac);
    QCOMPARE(ipAddressFrom(interfaces), ip);
}

void TestDeviceInfo::diskRules_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("root");
    QTest::addColumn<QByteArray>("fs");
    QTest::addColumn<bool>("ready"); // valid and ready
    QTest::addColumn<QString>("expected"); // diskName and type; empty: not listed
    QTest::newRow("exfat stick") << "STICK"
                                 << "E:/" << QByteArray("exFAT") << true << "E external";
    QTest::newRow("exfat lower case") << "x"
                                      << "G:/" << QByteArray("exfat") << true << "G local";
    QTest::newRow("unix mount") << "usb"
                                << "/media/usb" << QByteArray("exFAT") << true << "/media/usb external";
    QTest::newRow("FileCenter") << "FileCenter"
                                << "D:/" << QByteArray("NTFS") << true << "";
    QTest::newRow("filecenter2") << "filecenter2"
                                 << "D:/" << QByteArray("NTFS") << true << "D local";
    QTest::newRow("not ready") << "x"
                               << "H:/" << QByteArray("NTFS") << false << "";
}

void TestDeviceInfo::diskRules()
{
    QFETCH(QString, name);
    QFETCH(QString, root);
    QFETCH(QByteArray, fs);
    QFETCH(bool, ready);
    QFETCH(QString, expected);
    // 4 TiB, beyond 32 bits.
    const auto disks =
        diskListFrom({{true, ready, name, root, fs, 4LL << 40, 1200}, {true, true, "b", "B:/", "NTFS", 7, 0}});
    QCOMPARE(disks.size(), expected.isEmpty() ? std::size_t(1) : std::size_t(2));
    QCOMPARE(disks.back().name, std::string("b")); // the order is kept
    if (expected.isEmpty())
        return;
    QCOMPARE(QString::fromStdString(disks[0].name + "|" + disks[0].diskName + " " + disks[0].type),
             name + "|" + expected);
    QCOMPARE(disks[0].capability, std::int64_t(4LL << 40));
    QCOMPARE(disks[0].used, std::int64_t((4LL << 40) - 1200));
}

void TestDeviceInfo::volumePercent()
{
    // Truncated, never rounded.
    QCOMPARE(volumeScalarToPercent(0.999f), 99);
    QCOMPARE(volumeScalarToPercent(0.015f), 1);
    QCOMPARE(volumeScalarToPercent(1.0f), 100);
    QCOMPARE(volumeRangeToPercent(0, 65536, 65535), 99);
    QCOMPARE(volumeRangeToPercent(0, 87, 87), 100);
    QCOMPARE(volumeRangeToPercent(-10, 10, 0), 50);
    QCOMPARE(volumeRangeToPercent(10, 20, 13), 30);
    QCOMPARE(volumeRangeToPercent(5, 5, 5), 0);
}

void TestDeviceInfo::topicsAndRecords_data()
{
    QTest::addColumn<std::string>("actual");
    QTest::addColumn<std::string>("expected");
    // The topics tst_messaging does not already see on the wire; pieces are copied as they are.
    const std::string m1s1 = "/M1/S1/device/";
    QTest::newRow("offline") << t::topic(t::upstreamReport, "M1", "S1", t::offline)
                             << "orbicloud/upstream/report" + m1s1 + "offline";
    QTest::newRow("get storage") << t::topic(t::downstreamGet, "M1", "S1", t::storage)
                                 << "orbicloud/downstream/get" + m1s1 + "storage";
    QTest::newRow("reply basic") << t::topic(t::upstreamReply, "M1", "S1", t::basic)
                                 << "orbicloud/upstream/reply" + m1s1 + "basic";
    QTest::newRow("odd volume") << t::topic(t::upstreamReport, " m/+", "s#\xC3\xA9", t::volume)
                                << std::string("orbicloud/upstream/report/ m/+/s#\xC3\xA9/device/volume");

    const std::string h = R"({"header":{"content":"%","requestId":"r-1","version":"1.0"},"body":)";
    auto header = [&h](const char *content) { return QString::fromStdString(h).replace('%', content).toStdString(); };
    QTest::newRow("binding") << written(
        BindingRequestMessage{{}, {"u", "p", 0, "AA:BB", "S1", "M1", "dev", "custom", 1}}, "binding")
                             << header("binding")
            + R"({"username":"u","password":"p","passwordEncType":0,"mac":"AA:BB",)"
              R"("sn":"S1","modelId":"M1","deviceName":"dev","customDeviceName":"custom","source":1}})";
    QTest::newRow("basic") << written(
        BasicInfoMessage{{},
                         {"orbi", "RM", "dev", "Talvor RM5", "custom", "M1", "S1", "AA", "10.0.0.2", "Linux", "2.1"}},
        "basic")
                           << header("basic")
            + R"({"brand":"orbi","series":"RM","deviceName":"dev","productName":"Talvor RM5",)"
              R"("customDeviceName":"custom","modelId":"M1","sn":"S1","mac":"AA","localIp":"10.0.0.2",)"
              R"("platformSystem":"Linux","softwareMainVersion":"2.1"}})";
    QTest::newRow("storage") << written(
        StorageInfoMessage{{}, {5000000000LL, 7, {{5000000000LL, 6, "sys", "C", "local"}}}}, "storage")
                             << header("storage")
            + R"({"capability":5000000000,"used":7,"storage":[)"
              R"({"capability":5000000000,"used":6,"name":"sys","diskName":"C","type":"local"}]}})";
    QTest::newRow("volume") << written(VolumeInfoMessage{{}, {42}}, "volume") << header("volume") + R"({"value":42}})";
    QTest::newRow("online") << written(OnlineMessage{{}, {"online", "Linux"}}, "online")
                            << header("online") + R"({"type":"online","platform":"Linux"}})";
    QTest::newRow("offline record") << written(OfflineMessage{{}, {1763769600123LL}}, "offline")
                                    << header("offline") + R"({"timestamp":1763769600123}})";
    QTest::newRow("empty") << written(EmptyMessage{}, "unbinding") << header("unbinding") + R"({"dummy":""}})";
}

void TestDeviceInfo::topicsAndRecords()
{
    QFETCH(std::string, actual);
    QFETCH(std::string, expected);
    QCOMPARE(actual, expected);
}

QTEST_GUILESS_MAIN(TestDeviceInfo)
#include "tst_deviceinfo.moc"
