#include "actionlistener.h"

#include "cloudmaterial/logging.h"

#include <mqtt/token.h>

namespace talvor::cloudmaterial {

ActionListener::ActionListener(const std::string &name)
    : name(name)
{
}

void ActionListener::on_failure(const mqtt::token &token)
{
    RXCM_LOG_INFO("{} failure", name);
    if (token.get_message_id() != 0)
        RXCM_LOG_INFO(" for token: [{}]", token.get_message_id());
}

void ActionListener::on_success(const mqtt::token &token)
{
    RXCM_LOG_INFO("{} success", name);
    if (token.get_message_id() != 0)
        RXCM_LOG_INFO(" for token: [{}]", token.get_message_id());
    const auto topics = token.get_topics();
    if (topics && !topics->empty())
        RXCM_LOG_INFO("token topic: '{}', ...", (*topics)[0]);
}

} // namespace talvor::cloudmaterial
