#include "cloudmaterial/currentnode.h"

namespace talvor::cloudmaterial {

void CurrentNode::set(const std::string &host, const std::string &identity)
{
    m_host = host;
    m_identity = identity;
}

void CurrentNode::reset()
{
    m_host.clear();
    m_identity.clear();
}

} // namespace talvor::cloudmaterial
