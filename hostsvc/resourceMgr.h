#pragma once

#include "corvax/lockable.h"
#include "hostctl/resource.h"
#include "plexa/managedObject.h"
#include "quen/inventory.h"

#include <string>
#include <vector>

namespace Hostsvc {

/// The agent's resource manager: the host's tree of resource pools, its system resource groups, and
/// what each of them and each virtual machine uses.
///
/// Ownership: records returned as raw pointers belong to the caller; null means that there are
/// none. Errors: HostCtl::Lib::HostCtlException where the kernel cannot be read. Locking:
/// GetSystemResourceInfo is called with the object locked, everything else without.
class ResourceMgr : public virtual Corvax::LockableObject {
public:
   virtual Corvax::Ref<Plexa::MoRef> GetRootResourcePool() = 0;

   virtual HostCtl::Resource::CpuStats* GetPoolCpuStats(Plexa::MoRef* pool) = 0;
   virtual HostCtl::Resource::MemoryStats* GetPoolMemoryStats(Plexa::MoRef* pool) = 0;
   virtual HostCtl::Resource::CpuLoadHistory* GetPoolCpuLoadHistory(Plexa::MoRef* pool) = 0;

   /// The root of the system resource groups.
   virtual Corvax::Ref<Quen::Host::SystemResourceInfo> GetSystemResourceInfo() = 0;
   virtual HostCtl::Resource::CpuStats* GetSystemGroupCpuStats(const std::string& key) = 0;

   virtual HostCtl::Resource::CpuStats* GetVmCpuStats(Plexa::MoRef* vm) = 0;
   /// One record a virtual CPU.
   virtual std::vector<HostCtl::Resource::CpuTimes> GetVmCpuTimes(Plexa::MoRef* vm) = 0;
   virtual HostCtl::Resource::MemoryStats* GetVmMemoryStats(Plexa::MoRef* vm) = 0;
   virtual HostCtl::Resource::SwapInfo* GetVmSwapInfo(Plexa::MoRef* vm) = 0;
   virtual HostCtl::Resource::MemoryClientStats* GetVmMemoryClientStats(Plexa::MoRef* vm) = 0;
   virtual HostCtl::Resource::CpuLoadHistory* GetVmCpuLoadHistory(Plexa::MoRef* vm) = 0;

protected:
   ~ResourceMgr() override;
};

} // namespace Hostsvc
