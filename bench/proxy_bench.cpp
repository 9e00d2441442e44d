// Throughput of the proxy calls between the machines of a group, in calls per second:
//   codec    packing a "DownloadFileRes" argument list and unpacking it again;
//   in-process  the server sending "DownloadFileRes" through a channel that hands the bytes
//            straight to the client's handler, up to the client's signal.
// Each scenario is one function that makes one call.
// Then, with the demo host's runtime: the round trip of an existence check between a proxy
// client and a proxy server over MQTT on a local mosquitto (median of 200), from the client's
// call to the client's answer signal, the server looking the file up in its folder.
//
//     proxy_bench [seconds per round]      (default 0.2; the best of 5 rounds counts)

#include "cloudmaterial/multimachine/multimachineproxyclient.h"
#include "cloudmaterial/multimachine/multimachineproxyserver.h"
#include "cloudmaterial/multimachine/proxycodec.h"

#include <irxruntime/irxruntime.h>

#ifdef RXCM_BENCH_GROUP_CHANNEL
#include "groupruntime.h"
#include "localcloud/mosquitto.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#endif

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

using namespace talvor::cloudmaterial;

namespace {

const std::string address = "https://127.0.0.1:44321/files/6f1e2d3c4b5a/promo%20clip%202024.mp4";
const std::string id = "6f1e2d3c4b5a69788796a5b4c3d2e1f0";
const std::string name = "promo clip 2024.mp4";

// Two ends of a channel in one process: a message sent on one end runs the other's handler.
class LoopbackRuntime : public IRXRuntime
{
public:
    LoopbackRuntime *peer = nullptr;

    bool isProxyServer() const override { return false; }
    bool isProxyClient() const override { return false; }
    bool isSingleMachine() const override { return true; }
    void registerMessageHandler(const std::string &call, MessageHandler handler) override { handlers[call] = handler; }
    void removeMessageHandler(const std::string &call) override { handlers.erase(call); }
    void sendMessage(const std::string &call, const char *data, std::uint32_t size) override
    {
        const auto it = peer->handlers.find(call);
        if (it != peer->handlers.end())
            it->second(data, size);
    }

private:
    std::map<std::string, MessageHandler> handlers;
};

struct Scenario
{
    const char *name;
    std::function<void()> call; // one call; returns when it has arrived
    std::function<bool()> check; // afterwards: did every call arrive intact?
};

std::vector<Scenario> scenarios()
{
    std::vector<Scenario> list;

    auto sink = std::make_shared<bool>(true);
    list.push_back({"codec",
                    [sink] {
                        const msgpack::sbuffer packed = proxycodec::pack(address, id, name, true);
                        const auto args = proxycodec::unpack<std::string, std::string, std::string, bool>(
                            packed.data(), packed.size());
                        *sink = *sink && std::get<3>(args) && std::get<1>(args) == id;
                    },
                    [sink] { return *sink; }});

    struct InProcess
    {
        LoopbackRuntime serverEnd, clientEnd;
        std::unique_ptr<MultimachineProxyServer> server;
        std::unique_ptr<MultimachineProxyClient> client;
        long long sent = 0, arrived = 0;
    };
    auto group = std::make_shared<InProcess>();
    group->serverEnd.peer = &group->clientEnd;
    group->clientEnd.peer = &group->serverEnd;
    group->server = std::make_unique<MultimachineProxyServer>(&group->serverEnd);
    group->client = std::make_unique<MultimachineProxyClient>(&group->clientEnd);
    QObject::connect(group->client.get(), &MultimachineProxyClient::sigDownloadFileRes, group->client.get(),
                     [raw = group.get()](const std::string &gotId, const std::string &gotName, bool ok) {
                         raw->arrived += ok && gotId == id && gotName == name;
                     });
    list.push_back({"in-process",
                    [group] {
                        ++group->sent;
                        group->server->sendDownloadFileRes(address, id, name, true);
                    },
                    [group] { return group->sent == group->arrived; }});
    return list;
}

double callsPerSecond(const std::function<void()> &call, double seconds)
{
    using clock = std::chrono::steady_clock;
    long long calls = 0;
    const auto start = clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    auto now = start;
    while (now < end) {
        for (int i = 0; i < 256; ++i)
            call();
        calls += 256;
        now = clock::now();
    }
    return double(calls) / std::chrono::duration<double>(now - start).count();
}

#ifdef RXCM_BENCH_GROUP_CHANNEL
// Median round trip in ms of a proxied existence check over the demo's MQTT channel; < 0 on failure.
double existenceRoundTripMs(int runs)
{
    Mosquitto broker;
    if (!broker.start()) {
        std::fprintf(stderr, "proxy_bench: mosquitto did not start\n");
        return -1;
    }
    QTemporaryDir folder;
    QFile material(folder.filePath(QString::fromStdString(name)));
    if (!material.open(QIODevice::WriteOnly) || material.write("clip") != 4) {
        std::fprintf(stderr, "proxy_bench: cannot write %s\n", qPrintable(material.fileName()));
        return -1;
    }
    material.close();

    GroupRuntime serverEnd(GroupRuntime::Role::ProxyServer, QStringLiteral("bench"));
    GroupRuntime clientEnd(GroupRuntime::Role::ProxyClient, QStringLiteral("bench"));
    MultimachineProxyServer server(&serverEnd);
    MultimachineProxyClient client(&clientEnd);
    // What the server's handler does for a client: look in its folder, answer.
    QObject::connect(&server, &MultimachineProxyServer::sigQueryFileIsExist, &server,
                     [&server, &folder](const std::string &gotId, const std::string &gotName) {
                         server.sendQueryFileIsExistRes(
                             gotId, gotName, QFile::exists(folder.filePath(QString::fromStdString(gotName))));
                     });
    if (!serverEnd.start(broker.url()) || !clientEnd.start(broker.url())) {
        std::fprintf(stderr, "proxy_bench: the group runtimes did not join the broker\n");
        return -1;
    }

    std::vector<double> ms;
    QEventLoop loop;
    bool answered = false;
    QObject::connect(&client, &MultimachineProxyClient::sigQueryFileIsExistRes, &loop,
                     [&](const std::string &gotId, const std::string &, bool exists) {
                         answered = exists && gotId == id;
                         loop.quit();
                     });
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    for (int i = 0; i < runs + 10; ++i) {
        answered = false;
        QElapsedTimer clock;
        clock.start();
        client.sendQueryFileIsExist(id, name);
        limit.start(5000);
        loop.exec();
        if (!answered) {
            std::fprintf(stderr, "proxy_bench: call %d was not answered within 5 s\n", i);
            return -1;
        }
        if (i >= 10) // the first ones warm up the connections
            ms.push_back(clock.nsecsElapsed() / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2];
}
#endif

} // namespace

int main(int argc, char **argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 0.2;
    if (seconds <= 0) {
        std::fprintf(stderr, "proxy_bench: the seconds per round must be positive\n");
        return 2;
    }
#ifndef NDEBUG
    std::printf("note: built without NDEBUG; use a release build for figures that mean anything\n");
#endif
    const msgpack::sbuffer sample = proxycodec::pack(address, id, name, true);
    std::printf("\"DownloadFileRes\" argument list: %zu bytes; best of 5 rounds of %.2f s each\n", sample.size(),
                seconds);
    int status = 0;
    for (const Scenario &scenario : scenarios()) {
        double best = 0;
        for (int round = 0; round < 5; ++round) {
            const double rate = callsPerSecond(scenario.call, seconds);
            best = rate > best ? rate : best;
        }
        const bool intact = scenario.check();
        std::printf("%-12s %14.0f calls/s%s\n", scenario.name, best, intact ? "" : "  (calls were lost or changed)");
        status |= intact ? 0 : 1;
    }
#ifdef RXCM_BENCH_GROUP_CHANNEL
    QCoreApplication app(argc, argv);
    const double roundTrip = existenceRoundTripMs(200);
    if (roundTrip < 0) {
        std::printf("group channel: the existence check over MQTT did not come back\n");
        return 1;
    }
    std::printf("existence check over the demo's MQTT channel: median round trip %.2f ms (200 calls)\n", roundTrip);
#endif
    return status;
}
