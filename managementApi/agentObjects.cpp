#include "managementApi/agentObjects.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "quen/inventory.h"

namespace ManagementApi {

namespace {

using AgentdCommon::HaPerformanceManager;
using Corvax::Ref;

Corvax::ObjectRegistry& Registry()
{
   return *Corvax::Service::GetApp()->GetObjectRegistry();
}

} // namespace

Ref<HaPerformanceManager> GetPerformanceManager()
{
   return Registry().LookupObject<HaPerformanceManager>(AgentdCommon::moid_perfmgr);
}

Ref<Counters> GetAllCounters()
{
   Ref<Counters> counters;
   GetPerformanceManager()->GetPerfCounter(counters);
   return counters;
}

Ref<Plexa::MoRef> FindEntity(const std::string& id)
{
   Ref<Quen::ManagedEntity> entity;
   if (!Registry().TryLookupObject(id, entity)) {
      throw Http::Refusal(404, Corvax::Format("There is no entity '%1'", id));
   }
   return entity->GetMoRef();
}

} // namespace ManagementApi
