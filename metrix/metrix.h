#pragma once

#include "corvax/logger.h"
#include "corvax/plugin.h"
#include "metrix/performanceManagerImpl.h"

namespace Metrix {

/// The plug-in: hands the agent's calls on to the performance manager.
class MetrixPlugin : public Corvax::Plugin, public Corvax::ObjectImpl {
public:
   const char* GetName() const override { return "Metrix"; }
   int GetVerMajor() const override { return 1; }
   int GetVerMinor() const override { return 0; }

   /// Creates the performance manager and registers it as "ha-perfmgr". What it throws is for the
   /// agent, which then does not start the plug-in.
   void Init() override;
   void Start() override;
   /// Returns true as soon as collection has been stopped.
   bool WaitStop(int64_t timeoutUs) override;

   /// Exercises a scratch depot with synthetic samples; false, with the reason logged, when it does
   /// not give back what it must.
   bool Test();

private:
   Corvax::Ref<Corvax::Logger> _logger;
   Corvax::Ref<PerformanceManagerImpl> _performanceManager;
};

} // namespace Metrix
