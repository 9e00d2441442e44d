#pragma once

#include "actionlistener.h"
#include "tcpnodelay.h"

#include <mqtt/callback.h>
#include <mqtt/connect_options.h>
#include <mqtt/iaction_listener.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace talvor::cloudmaterial {

class MqttClientWrapper;

// Does the library's callback work for one MqttClientWrapper::start(): subscribes on
// connection, reconnects after a loss or a failed attempt, hands messages to the owner.
// The callbacks run on the library's own callback thread; the reconnects on a thread of this
// object's own (see callback.cpp for why).
class Callback : public mqtt::callback, public mqtt::iaction_listener
{
public:
    Callback(int maxRetries, MqttClientWrapper &client, mqtt::connect_options &connectOptions);
    ~Callback() override;

    void connected(const std::string &cause) override;
    void connection_lost(const std::string &cause) override;
    void message_arrived(mqtt::const_message_ptr msg) override;
    void delivery_complete(mqtt::delivery_token_ptr token) override;

    void on_failure(const mqtt::token &token) override;
    void on_success(const mqtt::token &token) override;

    // Ends a pending reconnect and keeps this callback from issuing new ones; waits for a
    // reconnect in progress to finish. Never call it from a handler.
    void shutdown();
    // shutdown(), and the owner is going: waits for a callback that is using it right now; the
    // ones that come later (the library fails the requests still in flight while the client is
    // destroyed) reach neither it nor a reconnect.
    void detach();

private:
    void reconnect();
    void reconnectLoop();
    // False for the second report of the same connect attempt (see callback.cpp).
    bool takeAttempt();

    // Starts at 5 and is never reset, so at most maxRetries - 5 failed attempts are retried
    // over the life of one callback. Kept on purpose: it bounds how long a device keeps trying.
    int retryCount = 5;
    int maxRetries;
    MqttClientWrapper &client;
    mqtt::connect_options &connectOptions;
    ActionListener subListener;
    TcpNoDelay noDelay;
    MqttClientWrapper *handlers;

    std::mutex mutex;
    std::condition_variable wakeUp;
    bool closing = false;
    // Held while a library callback uses the owner, so that detach() can wait for it.
    std::mutex ownerMutex;
    bool detached = false; // guarded by ownerMutex
    bool reconnectRequested = false;
    bool attemptPending = true; // start() issues the first attempt
    std::thread reconnector;
};

} // namespace talvor::cloudmaterial
