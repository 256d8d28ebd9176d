#pragma once

#include "quen/performanceManager.h"

#include <string>

namespace AgentdCommon {

using Long = int64_t;

/// The performance manager as the agent itself uses it.
class HaPerformanceManager : public virtual Quen::PerformanceManager {
public:
   /// The host's figures of the newest run, -1 for each without a sample there.
   virtual void GetHostCpuMemUsage(Long& cpuUsageMhz, Long& memConsumedKB) = 0;

   /// A virtual machine's figures of the newest run, -1 for each without a sample there.
   /// `memConsumedKB` is consumed memory plus overhead; -1 unless both are above 0.
   virtual void GetVmCpuMemUsage(Plexa::MoRef* vm, Long& cpuUsageMhz, Long& memConsumedKB,
                                 Long& memActiveKB) = 0;

   /// Why samples are not stored, or those of the newest run were not all stored, for a person;
   /// empty if all is well.
   virtual std::string GetStorageTrouble() = 0;

protected:
   ~HaPerformanceManager() override;
};

} // namespace AgentdCommon
