#include "agentdCommon/authEntityBaseImpl.h"

namespace AgentdCommon {

AuthEntityBaseImpl::AuthEntityBaseImpl(const Plexa::ManagedType& type, const std::string& id)
   : _moRef(Corvax::MakeRef<Plexa::MoRef>(type, id))
{
}

AuthEntityBaseImpl::~AuthEntityBaseImpl() = default;

} // namespace AgentdCommon
