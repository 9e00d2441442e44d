#pragma once

#include "json.h"
#include "login.h"

#include <deque>
#include <mutex>
#include <string>

namespace cloudsim {

class DeviceService;
class Scenario;
class Directory;

// The way into the cloud's messaging: the player authorization (the binding account) and the
// encrypted exchange that hands out the MQTT account. Both name the broker that the device
// service is connected to. docs/protocol.md has the exact bytes.
class Messaging
{
public:
    Messaging(Scenario &scenario, Directory &directory, DeviceService &devices);

    // Reads the scenario's "mqtt" member. Throws std::invalid_argument naming what is wrong.
    void load(const Json &scenario);

    // The reply to the player authorization for the token in "authorization".
    Json playerAuth(const std::string &token) const;
    // One authentication exchange at the main (keyIndex 0) or backup (1) endpoint.
    ServiceReply authenticate(std::size_t keyIndex, const std::string &body, const LoginService::HeaderLookup &header);

    // {"wrongKey": true|false, "times": n}: replies encrypted under a key the client did not send.
    void setControl(const Json &control);
    // {"wrongKey":..,"exchanges":[...]}
    Json control() const;
    // Forgets the exchanges and the wrong-key setting.
    void clear();

    std::string brokerUrl() const;

private:
    Scenario &m_scenario;
    Directory &m_directory;
    DeviceService &m_devices;

    mutable std::mutex m_mutex;
    std::string m_user = "rxcm-device";
    std::string m_password = "rxcm-device-pass";
    std::string m_bindingUser = "rxcm-binding";
    std::string m_bindingPassword = "rxcm-binding-pass";
    std::string m_url; // overrides the broker's address in the replies when set
    int m_wrongKey = 0; // replies left under a wrong key; -1 until cleared
    std::deque<Json> m_exchanges;
};

} // namespace cloudsim
