#include "simHost/simResourceMgr.h"

#include <map>

namespace SimHost {

namespace {

using namespace HostCtl::Resource;
using Corvax::MakeRef;
using Corvax::Ref;
using Plexa::MoRef;
using Quen::Host::SystemResourceInfo;

class SimResourceMgr : public Hostsvc::ResourceMgr, public Corvax::LockableObjectImpl {
public:
   SimResourceMgr(Ref<SimState> state, Ref<MoRef> rootPool)
      : _state(std::move(state)), _rootPool(std::move(rootPool))
   {
   }

   Ref<MoRef> GetRootResourcePool() override { return _rootPool; }
   Ref<SystemResourceInfo> GetSystemResourceInfo() override;

   CpuStats* GetPoolCpuStats(MoRef* pool) override
   {
      const SimState::Pool* const found = _state->FindPool(pool->GetId());
      return found ? new CpuStats(GetGroupCpu(found->key, Now())) : nullptr;
   }
   MemoryStats* GetPoolMemoryStats(MoRef* pool) override
   {
      const SimState::Pool* const found = _state->FindPool(pool->GetId());
      return found ? new MemoryStats(GetMemory(found->key, found->memoryKb, Now())) : nullptr;
   }
   CpuLoadHistory* GetPoolCpuLoadHistory(MoRef* pool) override
   {
      const SimState::Pool* const found = _state->FindPool(pool->GetId());
      return found ? new CpuLoadHistory(GetCpuLoad(found->key, Now())) : nullptr;
   }
   CpuStats* GetSystemGroupCpuStats(const std::string& key) override
   {
      const EntityKey* const found = _state->FindSystemGroup(key);
      return found ? new CpuStats(GetGroupCpu(*found, Now())) : nullptr;
   }
   CpuStats* GetVmCpuStats(MoRef* vm) override
   {
      const SimState::Vm* const found = _state->FindVm(vm->GetId());
      return found ? new CpuStats(found->shape.GetCpu(VmNow())) : nullptr;
   }
   std::vector<CpuTimes> GetVmCpuTimes(MoRef* vm) override;
   MemoryStats* GetVmMemoryStats(MoRef* vm) override
   {
      const SimState::Vm* const found = FindVmWithMemory(vm);
      return found ? new MemoryStats(GetMemory(found->shape.key, found->memoryKb, VmNow()))
                   : nullptr;
   }
   SwapInfo* GetVmSwapInfo(MoRef* vm) override
   {
      const SimState::Vm* const found = FindVmWithMemory(vm);
      return found ? new SwapInfo(GetSwap(found->shape.key, found->memoryKb,
                                          {VmNow(), found->shape.startSec}))
                   : nullptr;
   }
   MemoryClientStats* GetVmMemoryClientStats(MoRef* vm) override
   {
      const SimState::Vm* const found = FindVmWithMemory(vm);
      return found
                ? new MemoryClientStats(GetMemoryClient(found->shape.key, found->memoryKb, VmNow()))
                : nullptr;
   }
   CpuLoadHistory* GetVmCpuLoadHistory(MoRef* vm) override
   {
      const SimState::Vm* const found = _state->FindVm(vm->GetId());
      return found ? new CpuLoadHistory(GetCpuLoad(found->shape.key, VmNow())) : nullptr;
   }

private:
   int64_t Now() const { return _state->GetTimeSec(); }
   int64_t VmNow() const { return _state->GetVmTimeSec(); }
   const SimState::Vm* FindVmWithMemory(MoRef* vm) const
   {
      const SimState::Vm* const found = _state->FindVm(vm->GetId());
      return found && !found->shape.isFailing && !found->shape.isHung ? found : nullptr;
   }

   const Ref<SimState> _state;
   const Ref<MoRef> _rootPool;
};

std::vector<CpuTimes> SimResourceMgr::GetVmCpuTimes(MoRef* vm)
{
   std::vector<CpuTimes> times;
   if (const SimState::Vm* const found = _state->FindVm(vm->GetId())) {
      const uint64_t vcpus = found->shape.vcpus.size();
      times.reserve(vcpus);
      for (uint64_t vcpu = 0; vcpu < vcpus; ++vcpu) {
         times.push_back(found->shape.GetVcpu(vcpu, VmNow()));
      }
   }
   return times;
}

Ref<SystemResourceInfo> SimResourceMgr::GetSystemResourceInfo()
{
   std::map<std::string_view, Ref<SystemResourceInfo>> nodes;
   for (const std::string_view key : kSystemGroups) {
      const auto node = MakeRef<SystemResourceInfo>();
      node->key = key;
      nodes.emplace(key, node);
      if (key == kSystemGroups.front()) {
         continue;
      }
      SystemResourceInfo& parent = *nodes.at(key.substr(0, key.rfind('/')));
      if (!parent.child) {
         parent.child = MakeRef<Plexa::DataArray<SystemResourceInfo>>();
      }
      parent.child->Append(node);
   }
   return nodes.at(kSystemGroups.front());
}

} // namespace

Ref<Hostsvc::ResourceMgr> NewSimResourceMgr(Ref<SimState> state, Ref<MoRef> rootPool)
{
   return MakeRef<SimResourceMgr>(std::move(state), std::move(rootPool));
}

} // namespace SimHost
