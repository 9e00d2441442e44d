#pragma once

#include <mqtt/iaction_listener.h>

#include <string>

namespace talvor::cloudmaterial {

// Logs the outcome of the requests it listens to (subscriptions); the name tells them apart.
// Called on the MQTT library's thread; it holds nothing but its name.
class ActionListener : public mqtt::iaction_listener
{
public:
    explicit ActionListener(const std::string &name);

    void on_failure(const mqtt::token &token) override;
    void on_success(const mqtt::token &token) override;

private:
    std::string name;
};

} // namespace talvor::cloudmaterial
