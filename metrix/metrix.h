#pragma once

#include "corvax/logger.h"
#include "corvax/plugin.h"
#include "metrix/performanceManagerImpl.h"

namespace Metrix {

/// The plug-in: forwards the agent's calls to the performance manager.
class MetrixPlugin : public Corvax::Plugin, public Corvax::ObjectImpl {
public:
   const char* GetName() const override { return "Metrix"; }
   int GetVerMajor() const override { return 1; }
   int GetVerMinor() const override { return 0; }

   /// Creates the performance manager and registers it as "ha-perfmgr". If this throws, the agent
   /// does not start the plug-in.
   void Init() override;
   void Start() override;
   /// Stops collection, then returns true. Ignores the timeout.
   bool WaitStop(int64_t timeoutUs) override;

   /// Records synthetic samples in a scratch depot and reads them back. False, with the reason
   /// logged, if any of them is wrong.
   bool Test();

private:
   Corvax::Ref<Corvax::Logger> _logger;
   Corvax::Ref<PerformanceManagerImpl> _performanceManager;
};

} // namespace Metrix
