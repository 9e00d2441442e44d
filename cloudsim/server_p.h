#pragma once

#include "certificates.h"
#include "faults.h"
#include "json.h"
#include "query.h"
#include "reply.h"
#include "server.h"
#include "tlsserver.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

namespace cloudsim {

// The server's state, shared by its routes (server.cpp) and its control API (controlapi.cpp).
class Server::Private
{
public:
    Private(Scenario &scenario, Directory &directory, LoginService &login, GatewayOverrides &overrides,
            Messaging &messaging, DeviceService &devices, FaultList &faults, const Certificates &certificates,
            const ServerOptions &options)
        : scenario(scenario)
        , directory(directory)
        , login(login)
        , overrides(overrides)
        , messaging(messaging)
        , devices(devices)
        , faults(faults)
        , options(options)
        , http(certificates.serverCert.get(), certificates.serverKey.get())
    {
    }

    void handle(const httplib::Request &req, httplib::Response &res);
    Reply route(const httplib::Request &req);
    Reply gateway(const httplib::Request &req);
    Reply gatewayApis(const httplib::Request &req);
    Reply catalogue(const httplib::Request &req, const QueryItems &params);
    Reply control(const httplib::Request &req);
    Reply mqttControl(const httplib::Request &req);
    void send(const httplib::Request &req, httplib::Response &res, const Reply &reply,
              const std::optional<Fault> &fault);
    void hang(const httplib::Request &req, httplib::Response &res);
    void logRequest(const httplib::Request &req);
    bool pause(std::chrono::milliseconds duration);

    Scenario &scenario;
    Directory &directory;
    LoginService &login;
    GatewayOverrides &overrides;
    Messaging &messaging;
    DeviceService &devices;
    FaultList &faults;
    ServerOptions options;
    TlsServer http;
    std::thread thread;

    std::atomic<bool> stopping{false};
    std::mutex waitMutex;
    std::condition_variable wake;

    std::mutex logMutex;
    std::deque<Json> requestLog;
};

} // namespace cloudsim
