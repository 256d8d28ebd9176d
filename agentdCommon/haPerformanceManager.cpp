#include "agentdCommon/haPerformanceManager.h"

namespace AgentdCommon {

HaPerformanceManager::~HaPerformanceManager() = default;

} // namespace AgentdCommon
