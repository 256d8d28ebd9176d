#include "agentdCommon/messages.h"

namespace AgentdCommon {

ResourcePoolDestroyedMsg::~ResourcePoolDestroyedMsg() = default;

} // namespace AgentdCommon
