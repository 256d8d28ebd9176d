#pragma once

#include "quen/performanceManager.h"

namespace AgentdCommon {

using Long = int64_t;

/// The performance manager as the agent itself uses it.
class HaPerformanceManager : public virtual Quen::PerformanceManager {
public:
   /// The newest figures of the host, -1 for one that the newest collection did not give.
   virtual void GetHostCpuMemUsage(Long& cpuUsageMhz, Long& memConsumedKB) = 0;

   /// The newest figures of a virtual machine, -1 for one that the newest collection did not give.
   /// The memory includes the overhead of running the machine.
   virtual void GetVmCpuMemUsage(Plexa::MoRef* vm, Long& cpuUsageMhz, Long& memConsumedKB,
                                 Long& memActiveKB) = 0;

protected:
   ~HaPerformanceManager() override;
};

} // namespace AgentdCommon
