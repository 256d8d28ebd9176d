#include "linuxHost/linuxResourceMgr.h"

namespace LinuxHost {

namespace {

using namespace HostCtl::Resource;
using Corvax::Ref;
using Plexa::MoRef;

class LinuxResourceMgr : public Hostsvc::ResourceMgr, public Corvax::LockableObjectImpl {
public:
   Ref<MoRef> GetRootResourcePool() override
   {
      return Corvax::MakeRef<MoRef>(Quen::ResourcePool::GetManagedType(), "ha-root-pool");
   }
   Ref<Quen::Host::SystemResourceInfo> GetSystemResourceInfo() override { return nullptr; }

   CpuStats* GetPoolCpuStats(MoRef* /*pool*/) override { return nullptr; }
   MemoryStats* GetPoolMemoryStats(MoRef* /*pool*/) override { return nullptr; }
   CpuLoadHistory* GetPoolCpuLoadHistory(MoRef* /*pool*/) override { return nullptr; }
   CpuStats* GetSystemGroupCpuStats(const std::string& /*key*/) override { return nullptr; }
   CpuStats* GetVmCpuStats(MoRef* /*vm*/) override { return nullptr; }
   std::vector<CpuTimes> GetVmCpuTimes(MoRef* /*vm*/) override { return {}; }
   MemoryStats* GetVmMemoryStats(MoRef* /*vm*/) override { return nullptr; }
   SwapInfo* GetVmSwapInfo(MoRef* /*vm*/) override { return nullptr; }
   MemoryClientStats* GetVmMemoryClientStats(MoRef* /*vm*/) override { return nullptr; }
   CpuLoadHistory* GetVmCpuLoadHistory(MoRef* /*vm*/) override { return nullptr; }
};

} // namespace

Ref<Hostsvc::ResourceMgr> NewLinuxResourceMgr()
{
   return Corvax::MakeRef<LinuxResourceMgr>();
}

} // namespace LinuxHost
