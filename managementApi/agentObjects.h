#pragma once

#include "agentdCommon/haPerformanceManager.h"
#include "managementApi/requestText.h"

#include <string>

/// The agent's objects that the API uses, from the object registry.
namespace ManagementApi {

Corvax::Ref<AgentdCommon::HaPerformanceManager> GetPerformanceManager();

/// All counters of the catalogue, in no particular order. A copy of the list: get it once for each
/// request.
Corvax::Ref<Counters> GetAllCounters();

/// The reference to an entity; Refusal 404 where the registry has none with this id.
Corvax::Ref<Plexa::MoRef> FindEntity(const std::string& id);

} // namespace ManagementApi
