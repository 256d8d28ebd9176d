#include "metrix/metrix.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/exception.h"
#include "metrix/selfTest.h"

namespace Metrix {

using Corvax::Service::GetApp;

void MetrixPlugin::Init()
{
   _logger = GetApp()->GetLogManager()->GetLogger("Metrix");
   _logger->Log(Corvax::kLogNotice, "Initializing metrix plugin");
   std::string level;
   if (GetApp()->GetConfigStore()->Get("plugins/metrix/logLevelTemp", level)) {
      _logger->SetLevel(level);
   }
   _performanceManager =
      Corvax::MakeRef<PerformanceManagerImpl>(AgentdCommon::moid_perfmgr, _logger.Get());
   GetApp()->GetObjectRegistry()->Register(AgentdCommon::moid_perfmgr, _performanceManager);
}

void MetrixPlugin::Start()
{
   _logger->Log(Corvax::kLogNotice, "Starting metrix plugin");
   _performanceManager->StartStatsCollection();
}

bool MetrixPlugin::WaitStop(int64_t /*timeoutUs*/)
{
   // Misspelt on purpose: people search their logs for it.
   _logger->Log(Corvax::kLogNotice, "Stopping metix plugin");
   _performanceManager->StopStatsCollection();
   return true;
}

bool MetrixPlugin::Test()
{
   const Corvax::Ref<Corvax::Logger> logger = GetApp()->GetLogManager()->GetLogger("Metrix");
   try {
      TestScratchDepot(logger.Get());
      return true;
   } catch (const Corvax::Exception& e) {
      logger->Log(Corvax::kLogError, "Self-test failed: %1", e.GetMessage());
      return false;
   }
}

} // namespace Metrix
