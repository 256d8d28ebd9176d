#include "simHost/simHost.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/clock.h"
#include "corvax/exception.h"
#include "corvax/system.h"
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

void ChangeShape(VmShape& shape, SimAction action, uint64_t count, int64_t timeSec)
{
   switch (action) {
   case SimAction::ON_VM:
      return shape.Restart(timeSec);
   case SimAction::STUCK_VM:
   case SimAction::UNSTUCK_VM:
      shape.isStuck = action == SimAction::STUCK_VM;
      return;
   case SimAction::FAILING_VM:
   case SimAction::WORKING_VM:
      shape.isFailing = action == SimAction::FAILING_VM;
      return;
   case SimAction::HANG_VM:
   case SimAction::UNHANG_VM:
      shape.isHung = action == SimAction::HANG_VM;
      return;
   case SimAction::VCPUS_VM:
      return shape.SetVcpus(count, timeSec);
   case SimAction::CARDS_VM:
      return shape.SetCards(count, timeSec);
   case SimAction::DISKS_VM:
      return shape.SetImages(count, timeSec);
   default:
      Corvax::NotReached("the action changes a virtual machine");
   }
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
   : _state(MakeRef<SimState>(std::move(options))), _logger(logger),
     _inventory(kRootPoolId, "simulated root pool"),
     _resourceMgr(AgentdCommon::moid_resourcemgr,
                  NewSimResourceMgr(_state, _inventory.GetRootPool())),
     _hostSystem(AgentdCommon::moid_hostsystem, MakeRef<SimHostSystem>()),
     _events(MakeRef<SimEvents>(
        _state,
        [this](const SimEvent& event) { return Apply(event.action, event.id, event.count); },
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
   std::vector<Change> changes;
   {
      const std::lock_guard guard(_changesMutex);
      changes.swap(_changes);
   }
   _state->UpdateTime(); // after the time of the last change
   for (const Change& change : changes) {
      Make(change);
   }
   return NewHost(*_state);
}

HostCtl::Network::Port* SimHost::GetPort(uint32_t portId)
{
   return NewCardPort(*_state, portId);
}

bool SimHost::Apply(SimAction action, const std::string& id, uint64_t count)
{
   const std::lock_guard guard(_mutex);
   switch (action) {
   case SimAction::DISKS_HOST:
   case SimAction::NICS_HOST:
      return id == AgentdCommon::moid_hostsystem && Plan(action, id, count);
   case SimAction::DESTROY_POOL:
      return DestroyPool(id);
   case SimAction::CREATE_POOL:
      return CreatePool(id);
   default:
      const uint64_t index = _state->FindVmIndex(id);
      return index < _vms.size() && ApplyToVm(action, *_vms[index], count);
   }
}

bool SimHost::ApplyToVm(SimAction action, SimVm& vm, uint64_t count)
{
   const SimOptions& options = _state->GetOptions();
   const uint64_t index = _state->FindVmIndex(vm.GetId());
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
      return PlanFlag(SimAction::STUCK_VM, action, vm, index < options.stuck);
   case SimAction::FAILING_VM:
   case SimAction::WORKING_VM:
      return PlanFlag(SimAction::FAILING_VM, action, vm, index + options.failing >= options.vms);
   case SimAction::HANG_VM:
   case SimAction::UNHANG_VM:
      return PlanFlag(SimAction::HANG_VM, action, vm, false);
   default:
      return Plan(action, vm.GetId(), count);
   }
}

/// False if the number is already that one, or is not possible.
bool SimHost::Plan(SimAction action, const std::string& id, uint64_t count)
{
   const CountRange range = GetCountRange(_state->GetOptions(), action);
   uint64_t& planned = _planned.try_emplace({action, id}, range.atStart).first->second;
   if (planned == count || count < range.min || count > range.max) {
      return false;
   }
   planned = count;
   AddChange(action, id, count);
   return true;
}

/// `flag` is the action that sets it; `action` is that one or the one that clears it.
bool SimHost::PlanFlag(SimAction flag, SimAction action, const SimVm& vm, bool isAtStart)
{
   const uint64_t value = action == flag ? 1 : 0;
   uint64_t& planned = _planned.try_emplace({flag, vm.GetId()}, isAtStart ? 1 : 0).first->second;
   if (planned == value) {
      return false;
   }
   planned = value;
   AddChange(action, vm.GetId(), 0);
   return true;
}

void SimHost::AddChange(SimAction action, const std::string& id, uint64_t count)
{
   const std::lock_guard guard(_changesMutex);
   const int64_t timeSec = Corvax::System::GetTime() / Corvax::kMicrosecondsPerSecond;
   _changes.push_back({timeSec, action, id, count});
}

void SimHost::Make(const Change& change)
{
   _logger->Log(Corvax::kLogDebug, "Simulated change: %1 %2 %3 %4 %5", _state->GetTimeSec(),
                change.timeSec, GetActionName(change.action), change.id, change.count);
   if (change.action == SimAction::DISKS_HOST) {
      _state->SetDisks(change.count, change.timeSec);
      return;
   }
   if (change.action == SimAction::NICS_HOST) {
      _state->SetNics(change.count, change.timeSec);
      return;
   }
   const uint64_t index = _state->FindVmIndex(change.id);
   ChangeShape(_state->GetVm(index).shape, change.action, change.count, change.timeSec);
   if (change.action == SimAction::CARDS_VM) {
      _vms[index]->UpdateConfig();
   }
}

bool SimHost::SetPower(SimVm& vm, PowerState state, bool isOnlyFromOn)
{
   const PowerState before = vm.GetPowerState();
   if (before == state || (isOnlyFromOn && before != PowerState::POWERED_ON)) {
      return false;
   }
   if (before == PowerState::POWERED_OFF && state == PowerState::POWERED_ON) {
      AddChange(SimAction::ON_VM, vm.GetId(), 0);
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
   AddChange(SimAction::ON_VM, vm.GetId(), 0);
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
