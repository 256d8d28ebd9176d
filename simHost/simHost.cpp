#include "simHost/simHost.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/exception.h"
#include "simHost/simProvider.h"
#include "simHost/simResourceMgr.h"

#include <algorithm>

namespace SimHost {

namespace {

using Corvax::MakeRef;
using Corvax::Ref;
using Quen::Vm::PowerState;

constexpr uint64_t kPoolsPerGroup = 5;

Corvax::ObjectRegistry& Registry()
{
   return *Corvax::Service::GetApp()->GetObjectRegistry();
}

class SimHostSystem : public Quen::HostSystem, public Corvax::ObjectImpl {
public:
   Plexa::MoRef* GetMoRef() override { return _moRef.Get(); }
   std::string GetName() override { return "simulated"; }

private:
   const Ref<Plexa::MoRef> _moRef =
      MakeRef<Plexa::MoRef>(Quen::HostSystem::GetManagedType(), AgentdCommon::moid_hostsystem);
};

std::string GetParentPoolId(uint64_t number)
{
   return number % kPoolsPerGroup == 0 ? GetPoolId(number - kPoolsPerGroup + 1) : kRootPoolId;
}

/// VMs are dealt out to the pools in turn.
std::string GetPoolOfVm(uint64_t vmIndex, uint64_t pools)
{
   return pools == 0 ? kRootPoolId : GetPoolId(vmIndex % pools + 1);
}

void AddPool(Inventory::Inventory& inventory, uint64_t number)
{
   std::string parentId = GetParentPoolId(number);
   if (!inventory.FindPool(parentId)) {
      parentId = kRootPoolId;
   }
   inventory.AddPool(GetPoolId(number), "sim pool " + std::to_string(number), parentId);
}

} // namespace

SimHost::Registration::Registration(std::string id, const Ref<Corvax::Object>& object)
   : _id(std::move(id))
{
   Registry().Register(_id, object);
}

SimHost::Registration::~Registration()
{
   Registry().Unregister(_id);
}

SimHost::SimHost(SimOptions options, Corvax::Logger* logger)
   : _state(MakeRef<SimState>(std::move(options))), _inventory(kRootPoolId, "simulated root pool"),
     _resourceMgr(AgentdCommon::moid_resourcemgr,
                  NewSimResourceMgr(_state, _inventory.GetRootPool())),
     _hostSystem(AgentdCommon::moid_hostsystem, MakeRef<SimHostSystem>()),
     _events(MakeRef<SimEvents>(
        _state, [this](SimAction action, const std::string& id) { return Apply(action, id); },
        logger))
{
   const uint64_t pools = _state->GetOptions().pools;
   for (uint64_t number = 1; number <= pools; ++number) {
      AddPool(_inventory, number);
   }
   for (uint64_t i = 0; i < _state->GetOptions().vms; ++i) {
      const auto vm = MakeRef<SimVm>(_state, i);
      vm->SetPool(_inventory.FindPool(GetPoolOfVm(i, pools))->GetMoRef());
      _inventory.RegisterVm(vm);
      _vms.push_back(vm);
   }
}

SimHost::~SimHost()
{
   Stop();
}

HostCtl::Host* SimHost::GetHost()
{
   _state->UpdateTime();
   return NewHost(*_state);
}

HostCtl::Network::Port* SimHost::GetPort(uint32_t portId)
{
   return NewCardPort(*_state, portId);
}

bool SimHost::Apply(SimAction action, const std::string& id)
{
   const std::lock_guard guard(_mutex);
   switch (action) {
   case SimAction::DESTROY_POOL:
      return DestroyPool(id);
   case SimAction::CREATE_POOL:
      return CreatePool(id);
   default:
      const uint64_t index = _state->FindVmIndex(id);
      return index < _vms.size() && ApplyToVm(action, *_vms[index]);
   }
}

bool SimHost::ApplyToVm(SimAction action, SimVm& vm)
{
   if (action == SimAction::REGISTER_VM) {
      return RegisterVm(vm);
   }
   if (!_inventory.FindVm(vm.GetId())) {
      return false;
   }
   switch (action) {
   case SimAction::ON_VM:
      return SetPower(vm, PowerState::POWERED_ON, false);
   case SimAction::OFF_VM:
      return SetPower(vm, PowerState::POWERED_OFF, false);
   case SimAction::SUSPEND_VM:
      return SetPower(vm, PowerState::SUSPENDED, true);
   case SimAction::UNREGISTER_VM:
      _inventory.UnregisterVm(vm.GetId());
      return true;
   case SimAction::STUCK_VM:
   case SimAction::UNSTUCK_VM:
      return vm.SetFlag(&SimState::Vm::isStuck, action == SimAction::STUCK_VM);
   case SimAction::FAILING_VM:
   case SimAction::WORKING_VM:
      return vm.SetFlag(&SimState::Vm::isFailing, action == SimAction::FAILING_VM);
   default:
      Corvax::NotReached("the action is for a virtual machine");
   }
}

bool SimHost::SetPower(SimVm& vm, PowerState state, bool isOnlyFromOn)
{
   const PowerState before = vm.GetPowerState();
   if (before == state || (isOnlyFromOn && before != PowerState::POWERED_ON)) {
      return false;
   }
   _inventory.SetPowerState(vm.GetId(), state);
   return true;
}

bool SimHost::RegisterVm(SimVm& vm)
{
   if (_inventory.FindVm(vm.GetId())) {
      return false;
   }
   // Its pool may have been destroyed meanwhile.
   if (!_inventory.FindPool(vm.GetParent()->GetId())) {
      vm.SetPool(_inventory.GetRootPool());
   }
   vm.SetPowerState(PowerState::POWERED_ON);
   _inventory.RegisterVm(&vm);
   return true;
}

bool SimHost::CreatePool(const std::string& id)
{
   for (uint64_t number = 1; number <= _state->GetOptions().pools; ++number) {
      if (GetPoolId(number) == id && !_inventory.FindPool(id)) {
         AddPool(_inventory, number);
         return true;
      }
   }
   return false;
}

bool SimHost::DestroyPool(const std::string& id)
{
   const Ref<Inventory::PoolObject> pool = _inventory.FindPool(id);
   if (!pool || id == kRootPoolId) {
      return false;
   }
   // Move the VMs first: none may ever be in a pool that does not exist. Pools are two levels deep.
   const auto isWithin = [&](const std::string& poolId) {
      const Ref<Inventory::PoolObject> found = _inventory.FindPool(poolId);
      return poolId == id || (found && found->GetParent() && found->GetParent()->GetId() == id);
   };
   for (const Ref<Inventory::VmObject>& vm : _inventory.GetVms()) {
      if (isWithin(vm->GetParent()->GetId())) {
         vm->SetPool(_inventory.GetRootPool());
      }
   }
   _inventory.RemovePool(id);
   return true;
}

} // namespace SimHost
