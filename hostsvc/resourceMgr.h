#pragma once

#include "corvax/lockable.h"
#include "hostctl/resource.h"
#include "plexa/managedObject.h"
#include "quen/inventory.h"

#include <string>
#include <vector>

namespace Hostsvc {

/// The agent's resource manager: the host's tree of resource pools, its system groups, and the
/// resources that each of them and each virtual machine uses.
///
/// Ownership: the caller owns every raw pointer that is returned; null means no record.
/// Errors: HostCtl::Lib::HostCtlException if the kernel cannot be read.
/// Locking: callers lock the object for GetSystemResourceInfo only.
class ResourceMgr : public virtual Corvax::LockableObject {
public:
   virtual Corvax::Ref<Plexa::MoRef> GetRootResourcePool() = 0;

   virtual HostCtl::Resource::CpuStats* GetPoolCpuStats(Plexa::MoRef* pool) = 0;
   virtual HostCtl::Resource::MemoryStats* GetPoolMemoryStats(Plexa::MoRef* pool) = 0;
   virtual HostCtl::Resource::CpuLoadHistory* GetPoolCpuLoadHistory(Plexa::MoRef* pool) = 0;

   /// The root of the system groups.
   virtual Corvax::Ref<Quen::Host::SystemResourceInfo> GetSystemResourceInfo() = 0;
   virtual HostCtl::Resource::CpuStats* GetSystemGroupCpuStats(const std::string& key) = 0;

   virtual HostCtl::Resource::CpuStats* GetVmCpuStats(Plexa::MoRef* vm) = 0;
   /// One record per virtual CPU.
   virtual std::vector<HostCtl::Resource::CpuTimes> GetVmCpuTimes(Plexa::MoRef* vm) = 0;
   virtual HostCtl::Resource::MemoryStats* GetVmMemoryStats(Plexa::MoRef* vm) = 0;
   virtual HostCtl::Resource::SwapInfo* GetVmSwapInfo(Plexa::MoRef* vm) = 0;
   virtual HostCtl::Resource::MemoryClientStats* GetVmMemoryClientStats(Plexa::MoRef* vm) = 0;
   virtual HostCtl::Resource::CpuLoadHistory* GetVmCpuLoadHistory(Plexa::MoRef* vm) = 0;

protected:
   ~ResourceMgr() override;
};

} // namespace Hostsvc
