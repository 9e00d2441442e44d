// Download throughput and memory of FileDownloader against curl, and the time of a 50-media
// catalogue refresh, both against cloudsim on loopback.
//
//     download_bench [--rounds N] [--refresh-runs N]      (--rounds 0: the refresh only)
//
// Each round fetches a 512 MiB generated file once with FileDownloader and once with curl,
// taking turns at going first, after a warm-up round that is not counted (whichever client
// came first to a fresh cloudsim was served noticeably slower). Our side runs in a child
// process (this executable re-run with --child-download) so that its peak resident memory is
// its own and not the bench's. Both sides time the transfer itself, request to complete file,
// leaving process start-up out. The CPU time of each download is shown too (on a busy machine
// it says more than the wall clock): ours is what the child's threads used from the request
// to the complete file, as in a host that has long been running; curl's is its whole process,
// start-up included (a few milliseconds).
//
// The child's heap is made to look like a player's first (see emulatePlayerHeap); --bare-heap
// leaves it as a bare process has it. Each round shows the page faults of our transfer.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/protocol/filedownloader.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "localcloud/cloudsim.h"
#include "support/generatedcontent.h"

#include "benchsupport.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include <sys/resource.h>

using namespace talvor::cloudmaterial;
using bench::median;

namespace {

constexpr qint64 fileSize = qint64(512) * 1024 * 1024;
constexpr double mebibyte = 1024.0 * 1024.0;
constexpr int mediaCount = 50;
const char token[] = "bench-token";
const char childOption[] = "--child-download";
const char bareHeapOption[] = "bare-heap";

QByteArray scenario()
{
    QJsonArray media;
    for (int i = 1; i <= mediaCount; ++i)
        media.append(QJsonObject{{QStringLiteral("mid"), QStringLiteral("m%1").arg(i, 2, 10, QLatin1Char('0'))}});
    const QJsonObject account{{QStringLiteral("token"), QLatin1String(token)}, {QStringLiteral("media"), media}};
    const QJsonObject file{{QStringLiteral("name"), QStringLiteral("big.bin")}, {QStringLiteral("size"), fileSize}};
    const QJsonObject root{{QStringLiteral("accounts"), QJsonArray{account}},
                           {QStringLiteral("files"), QJsonArray{file}}};
    return QJsonDocument(root).toJson(QJsonDocument::Compact);
}

bool trustCa(const QString &caFile)
{
    const auto certificates = QSslCertificate::fromPath(caFile, QSsl::Pem);
    if (certificates.isEmpty())
        return false;
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.addCaCertificates(certificates);
    QSslConfiguration::setDefaultConfiguration(configuration);
    return true;
}

double cpuSecondsOf(const rusage &usage)
{
    auto seconds = [](const timeval &t) { return double(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// A player has freed decoded pictures long before it downloads anything, and glibc raises its
// trim threshold when a large mapped block is freed; from then on it keeps freed heap memory
// for the next allocation. A bare process has not, and in about half of the runs its heap gave
// back and faulted in again every 64 KiB block the network thread handed over (some 90,000
// page faults and 0.3-0.4 s more CPU per download). One 1080p RGBA picture, allocated and
// freed (never touched, so the peak RSS does not count it), gives the child a player's heap.
void emulatePlayerHeap()
{
    void *volatile picture = std::malloc(std::size_t(1920) * 1080 * 4);
    std::free(picture);
}

// The child: one download, then "<status> <nanoseconds> <peak RSS in KiB> <CPU microseconds>
// <minor page faults>" on stdout.
int runChild(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s %s <url> <path> <ca file> player-heap|%s\n", argv[0], childOption,
                     bareHeapOption);
        return 2;
    }
    if (std::strcmp(argv[5], bareHeapOption) != 0)
        emulatePlayerHeap();
    // The per-file info line is noise here; warnings still show.
    QLoggingCategory::setFilterRules(QStringLiteral("rxcm.download.info=false"));
    if (!trustCa(QString::fromLocal8Bit(argv[4]))) {
        std::fprintf(stderr, "no usable CA in %s\n", argv[4]);
        return 2;
    }
    FileDownloader downloader;
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    QElapsedTimer timer;
    timer.start();
    const DownloadStatus status = downloader.download(argv[2], QString::fromLocal8Bit(argv[3]));
    const qint64 elapsed = timer.nsecsElapsed();
    // ru_maxrss is the high-water mark of the whole process life (KiB on Linux).
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    const auto cpuMicroseconds = static_cast<long long>((cpuSecondsOf(after) - cpuSecondsOf(before)) * 1e6);
    std::printf("%d %lld %ld %lld %ld\n", int(status), static_cast<long long>(elapsed), after.ru_maxrss,
                cpuMicroseconds, after.ru_minflt - before.ru_minflt);
    return status == Successed ? 0 : 1;
}

// Size, then a spread of 4 KiB pieces against the generated pattern, so that a short,
// shifted or garbled file cannot pass for a fast download.
bool verifyDownload(const QString &path, QString *why)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *why = QStringLiteral("cannot open ") + path;
        return false;
    }
    if (file.size() != fileSize) {
        *why = QStringLiteral("size %1, expected %2").arg(file.size()).arg(fileSize);
        return false;
    }
    constexpr int piece = 4096;
    std::vector<qint64> offsets{0, fileSize / 2 + 3, fileSize - piece};
    std::mt19937_64 random(std::random_device{}());
    std::uniform_int_distribution<qint64> anywhere(0, fileSize - piece);
    for (int i = 0; i < 32; ++i)
        offsets.push_back(anywhere(random));
    for (const qint64 offset : offsets) {
        if (!file.seek(offset) || file.read(piece) != generatedContent(quint64(offset), piece)) {
            *why = QStringLiteral("content differs at offset %1").arg(offset);
            return false;
        }
    }
    return true;
}

struct Transfer
{
    double seconds = 0;
    double peakRssMiB = 0; // ours only
    double cpuSeconds = 0;
    double processCpuSeconds = 0; // start-up and exit included
    long pageFaults = 0; // ours only
};

// User plus system time of the children reaped so far. cloudsim runs until the end, so the
// difference across one client's run is that client's own.
double reapedChildrenCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return cpuSecondsOf(usage);
}

std::optional<Transfer> downloadOurs(const QString &url, const QString &path, const QString &caFile, bool bareHeap)
{
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(),
                {QLatin1String(childOption), url, path, caFile,
                 bareHeap ? QLatin1String(bareHeapOption) : QStringLiteral("player-heap")});
    if (!child.waitForFinished(600000) || child.exitStatus() != QProcess::NormalExit) {
        std::fprintf(stderr, "our download did not finish: %s\n", qPrintable(child.errorString()));
        child.kill();
        child.waitForFinished();
        return std::nullopt;
    }
    const QList<QByteArray> fields = child.readAllStandardOutput().simplified().split(' ');
    if (child.exitCode() != 0 || fields.size() != 5) {
        std::fprintf(stderr, "our download failed (exit code %d)\n", child.exitCode());
        return std::nullopt;
    }
    Transfer transfer{fields[1].toLongLong() / 1e9, fields[2].toLongLong() / 1024.0, fields[3].toLongLong() / 1e6};
    transfer.pageFaults = fields[4].toLong();
    return transfer;
}

std::optional<Transfer> downloadCurl(const QString &url, const QString &path, const QString &caFile)
{
    QProcess curl;
    curl.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // time_total runs from the start of the transfer to its end, like the child's timer.
    curl.start(QStringLiteral("curl"),
               {QStringLiteral("-sS"), QStringLiteral("--cacert"), caFile, QStringLiteral("-o"), path,
                QStringLiteral("-w"), QStringLiteral("%{time_total}"), url});
    if (!curl.waitForFinished(600000) || curl.exitStatus() != QProcess::NormalExit || curl.exitCode() != 0) {
        std::fprintf(stderr, "curl failed: %s (exit code %d)\n", qPrintable(curl.errorString()), curl.exitCode());
        curl.kill();
        curl.waitForFinished();
        return std::nullopt;
    }
    bool ok = false;
    const double seconds = curl.readAllStandardOutput().trimmed().toDouble(&ok);
    if (!ok || seconds <= 0)
        return std::nullopt;
    return Transfer{seconds, 0, 0};
}

void printThroughput(const char *who, const std::vector<double> &seconds, const char *suffix)
{
    std::vector<double> rates;
    for (const double s : seconds)
        rates.push_back(fileSize / mebibyte / s);
    std::printf("download %s: best %.1f MiB/s median %.1f MiB/s%s\n", who,
                *std::max_element(rates.begin(), rates.end()), median(rates), suffix);
}

// Times one catalogue refresh on a fresh controller, from the request to the last added
// material as the GUI thread receives it. Negative when not every material arrived.
double timeRefresh(HttpClientWrapper &http, const std::shared_ptr<WorkerPool> &pool, const QString &host)
{
    // A controller adds a material it already knows only once, so every run gets a new one.
    CurrentNode node;
    node.set(host.toStdString(), "bench");
    auto controller = std::make_shared<CloudMaterialController>(&http, &node);
    controller->init();
    controller->setWorkerPool(pool);
    controller->setToken(token);

    QEventLoop loop;
    QElapsedTimer timer;
    std::size_t added = 0;
    qint64 lastNs = -1;
    // The changes are signalled on this thread once the worker has fetched the catalogue.
    QObject::connect(controller.get(), &CloudMaterialController::addMaterials, &loop,
                     [&](const std::vector<CloudMaterialModel> &models) {
                         added += models.size();
                         if (added >= std::size_t(mediaCount)) {
                             lastNs = timer.nsecsElapsed();
                             loop.quit();
                         }
                     });
    QTimer::singleShot(HttpClientWrapper::timeoutMs + 5000, &loop, &QEventLoop::quit);
    timer.start();
    std::future<void> done = controller->requestRefresh(true);
    loop.exec();
    // The fetch has ended and its changes were applied, which releases the process-wide refresh
    // guard the next run needs.
    if (done.valid())
        done.wait();
    if (added != std::size_t(mediaCount)) {
        std::fprintf(stderr, "refresh added %zu materials, expected %d\n", added, mediaCount);
        return -1;
    }
    return lastNs / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && std::strcmp(argv[1], childOption) == 0)
        return runChild(argc, argv);

    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Download and catalogue refresh benchmark against cloudsim"));
    parser.addHelpOption();
    const QCommandLineOption roundsOption =
        bench::addCountOption(parser, "rounds", "Downloads per client, 0 skips them", 7);
    const QCommandLineOption refreshOption =
        bench::addCountOption(parser, "refresh-runs", "Catalogue refreshes timed", 20);
    const QCommandLineOption bareHeapFlag(QLatin1String(bareHeapOption),
                                          QStringLiteral("Our download runs with a bare process's heap."));
    parser.addOption(bareHeapFlag);
    parser.process(app);
    const bool bareHeap = parser.isSet(bareHeapFlag);
    const int rounds = parser.value(roundsOption).toInt();
    const int refreshRuns = parser.value(refreshOption).toInt();
    if (rounds < 0 || refreshRuns < 1) {
        std::fprintf(stderr, "--rounds needs a number, --refresh-runs a positive one\n");
        return 2;
    }

    CloudSim sim; // also makes this process trust its CA
    if (!sim.start(scenario()))
        return bench::fail("cloudsim did not start");
    // Beside the system's other temporary files: the same disk for both clients.
    QTemporaryDir dir;
    if (!dir.isValid())
        return bench::fail("no temporary folder");
    const QString url = sim.url(QStringLiteral("/files/big.bin"));

    std::vector<double> oursSeconds;
    std::vector<double> curlSeconds;
    std::vector<double> oursCpu;
    std::vector<double> curlCpu;
    double peakRssMiB = 0;
    // Round 0 warms cloudsim up and is not counted; then the clients take turns at going first.
    for (int round = rounds > 0 ? 0 : 1; round <= rounds; ++round) {
        const bool oursFirst = round % 2 == 1;
        char label[32];
        std::snprintf(label, sizeof label, round == 0 ? "warm-up" : "round %d", round);
        for (const bool ours : {oursFirst, !oursFirst}) {
            const QString path = dir.filePath(QStringLiteral("round%1-%2.bin").arg(round).arg(ours ? "ours" : "curl"));
            const double cpuBefore = reapedChildrenCpuSeconds();
            auto transfer =
                ours ? downloadOurs(url, path, sim.caFile(), bareHeap) : downloadCurl(url, path, sim.caFile());
            if (transfer) {
                transfer->processCpuSeconds = reapedChildrenCpuSeconds() - cpuBefore;
                if (!ours)
                    transfer->cpuSeconds = transfer->processCpuSeconds;
            }
            QString why;
            const bool good = transfer && verifyDownload(path, &why);
            QFile::remove(path);
            QFile::remove(path + QStringLiteral(".temp"));
            if (!good)
                return bench::fail("%s, %s: bad download %s", label, ours ? "ours" : "curl", qPrintable(why));
            std::printf("  %s %s: %.2f s, %.1f MiB/s, cpu %.2f s", label, ours ? "ours" : "curl", transfer->seconds,
                        fileSize / mebibyte / transfer->seconds, transfer->cpuSeconds);
            if (ours)
                std::printf(" (process %.2f s), peak RSS %.1f MiB, %ld page faults", transfer->processCpuSeconds,
                            transfer->peakRssMiB, transfer->pageFaults);
            std::printf("\n");
            std::fflush(stdout);
            if (round == 0)
                continue;
            (ours ? oursSeconds : curlSeconds).push_back(transfer->seconds);
            (ours ? oursCpu : curlCpu).push_back(transfer->cpuSeconds);
            if (ours)
                peakRssMiB = std::max(peakRssMiB, transfer->peakRssMiB);
        }
    }
    if (rounds > 0) {
        char rss[64];
        std::snprintf(rss, sizeof rss, " peak RSS %.1f MiB", peakRssMiB);
        printThroughput("ours", oursSeconds, rss);
        printThroughput("curl", curlSeconds, "");
        // Medians over medians: one lucky round should not make the ratio.
        const double ratio = median(curlSeconds) / median(oursSeconds);
        std::printf("ratio ours/curl: %.2f (target >= 0.95; peak RSS target < 64 MiB)\n", ratio);
        std::printf("cpu per download: ours median %.2f s, curl median %.2f s (%.2fx, target <= 1.15x)\n",
                    median(oursCpu), median(curlCpu), median(oursCpu) / median(curlCpu));
        std::fflush(stdout);
    }

    std::vector<double> refreshMs;
    {
        auto pool = std::make_shared<WorkerPool>(1);
        HttpClientWrapper http(pool);
        for (int run = 0; run < refreshRuns; ++run) {
            const double ms = timeRefresh(http, pool, sim.host());
            if (ms < 0)
                return 1;
            refreshMs.push_back(ms);
        }
    }
    std::printf("  refresh runs (ms):");
    for (const double ms : refreshMs)
        std::printf(" %.1f", ms);
    std::printf("\n");
    std::printf("refresh %d media: median %.1f ms (min %.1f, max %.1f, %d runs)\n", mediaCount, median(refreshMs),
                *std::min_element(refreshMs.begin(), refreshMs.end()),
                *std::max_element(refreshMs.begin(), refreshMs.end()), refreshRuns);
    return 0;
}
