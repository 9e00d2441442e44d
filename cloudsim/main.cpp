// cloudsim: the cloud on loopback, for tests, benchmarks and the demo (docs/protocol.md).

#include "certificates.h"
#include "deviceservice.h"
#include "directory.h"
#include "faults.h"
#include "json.h"
#include "login.h"
#include "messaging.h"
#include "overrides.h"
#include "scenario.h"
#include "server.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const char usage[] = "usage: cloudsim --scenario <file.json> [--port N] [--host 127.0.0.1] [--ca-out <path>]\n"
                     "                [--mqtt tcp://127.0.0.1:<port>] [--exit-with-parent] [--verbose]\n"
                     "Serves the scenario over HTTPS with a CA made at start, written to --ca-out\n"
                     "(default: cloudsim-ca.pem beside the scenario), with --mqtt plays the device service on\n"
                     "that broker, then prints\n"
                     "  cloudsim ready port=<port> ca=<absolute path of the CA file>\n"
                     "and runs until SIGTERM or SIGINT. Exit codes: 0 clean stop, 1 failure, 2 bad arguments,\n"
                     "3 stopped while connections were still busy.\n";

struct Arguments
{
    std::string scenario;
    std::string caOut;
    std::string mqtt;
    cloudsim::ServerOptions server;
    bool exitWithParent = false;
};

Arguments parseArguments(int argc, char **argv)
{
    Arguments args;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                throw std::invalid_argument(arg + " needs a value");
            return argv[++i];
        };
        if (arg == "--scenario") {
            args.scenario = value();
        } else if (arg == "--port") {
            const std::string port = value();
            if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos
                || std::stoi(port) > 65535)
                throw std::invalid_argument("--port needs a number from 0 to 65535");
            args.server.port = std::stoi(port);
        } else if (arg == "--host") {
            args.server.host = value();
        } else if (arg == "--ca-out") {
            args.caOut = value();
        } else if (arg == "--mqtt") {
            args.mqtt = value();
        } else if (arg == "--exit-with-parent") {
            args.exitWithParent = true;
        } else if (arg == "--verbose") {
            args.server.verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(usage, stdout);
            std::exit(0);
        } else {
            throw std::invalid_argument("unknown argument " + arg);
        }
    }
    if (args.scenario.empty())
        throw std::invalid_argument("--scenario is required");
    return args;
}

std::string readFile(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path.string());
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const fs::path &path, const std::string &data)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << data;
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
}

} // namespace

int main(int argc, char **argv)
{
    Arguments args;
    try {
        args = parseArguments(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "cloudsim: %s\n%s", e.what(), usage);
        return 2;
    }

    // Signals are taken by sigwait below; every thread started later inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // a client that hangs up must not end the process

    if (args.exitWithParent) {
        // A test that crashes must not leave its cloud running.
        const pid_t parent = getppid();
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            return 0;
    }

    try {
        const fs::path scenarioPath = fs::absolute(args.scenario);
        const cloudsim::Json scenarioJson = cloudsim::Json::parse(readFile(scenarioPath));
        cloudsim::Scenario scenario;
        scenario.load(scenarioJson);
        cloudsim::Directory directory;
        directory.load(scenarioJson);
        cloudsim::LoginService login(scenario);
        login.load(scenarioJson);
        cloudsim::GatewayOverrides overrides;
        overrides.load(scenarioJson);
        cloudsim::DeviceService devices;
        cloudsim::Messaging messaging(scenario, directory, devices);
        messaging.load(scenarioJson);
        // The broker comes first: a device service that cannot reach it is a failed start.
        if (!args.mqtt.empty())
            devices.connect(args.mqtt);
        cloudsim::FaultList faults;
        if (scenarioJson.contains("faults"))
            faults.add(scenarioJson.at("faults"));

        std::vector<std::string> names{args.server.host};
        for (const char *name : {"127.0.0.1", "localhost"})
            if (args.server.host != name)
                names.emplace_back(name);
        const cloudsim::Certificates certificates = cloudsim::makeCertificates(names);
        const fs::path caPath =
            (args.caOut.empty() ? scenarioPath.parent_path() / "cloudsim-ca.pem" : fs::absolute(args.caOut))
                .lexically_normal();
        writeFile(caPath, cloudsim::certificatePem(certificates.caCert.get()));

        cloudsim::Server server(scenario, directory, login, overrides, messaging, devices, faults, certificates,
                                args.server);
        const int port = server.bind();
        const std::string host =
            args.server.host.find(':') != std::string::npos ? "[" + args.server.host + "]" : args.server.host;
        const std::string address = host + ":" + std::to_string(port);
        scenario.setBaseUrl("https://" + address);
        directory.setAddress("https://" + address, address);
        server.start();

        std::printf("cloudsim ready port=%d ca=%s\n", port, caPath.c_str());
        std::fflush(stdout);

        int signal = 0;
        sigwait(&stopSignals, &signal);
        // A connection stuck in the TLS library cannot be interrupted; do not wait for it long.
        // The distinct exit code lets tests see that the shutdown was not clean.
        std::thread([] {
            std::this_thread::sleep_for(std::chrono::seconds(10));
            std::fprintf(stderr, "cloudsim: connections did not close in time, leaving anyway\n");
            std::_Exit(3);
        }).detach();
        server.stop();
        devices.disconnect();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "cloudsim: %s\n", e.what());
        return 1;
    }
    return 0;
}
