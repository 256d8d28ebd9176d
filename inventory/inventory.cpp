#include "inventory/inventory.h"

#include "agentdCommon/messages.h"
#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/exception.h"

#include <cstdio>

namespace Inventory {

namespace {

using Corvax::Format;
using Corvax::InvalidArgumentException;
using Corvax::MakeRef;
using Corvax::Ref;
using Plexa::MoRef;
using Quen::Vm::PowerState;

Corvax::ObjectRegistry& Registry()
{
   return *Corvax::Service::GetApp()->GetObjectRegistry();
}

void Publish(const std::string& path, Ref<Corvax::Object> message)
{
   Corvax::Service::GetApp()->GetChannels()->Publish(path, std::move(message));
}

/// The virtual machine service. Not to be used after the inventory's destructor, which unregisters
/// it.
class GuestsvcImpl : public Guestsvc::Guestsvc, public Corvax::ObjectImpl {
public:
   explicit GuestsvcImpl(const Inventory& inventory) : _inventory(inventory) {}

   void GetPoweredOnVms(Ref<Plexa::DataArray<MoRef>>& vms) override
   {
      _inventory.GetPoweredOnVms(vms);
   }

private:
   const Inventory& _inventory;
};

/// 64-bit FNV-1a.
uint64_t Hash(std::string_view text)
{
   uint64_t hash = 0xCBF29CE484222325;
   for (const char c : text) {
      hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
   }
   return hash;
}

} // namespace

std::string BoundedId(std::string_view text, size_t maxBytes)
{
   if (text.size() <= maxBytes) {
      return std::string(text);
   }
   char ending[18];
   const int length =
      std::snprintf(ending, sizeof ending, "~%016llx", static_cast<unsigned long long>(Hash(text)));
   return std::string(text.substr(0, maxBytes - static_cast<size_t>(length))) + ending;
}

Inventory::Inventory(const std::string& rootPoolId, const std::string& rootPoolName)
   : _rootPool(MakeRef<MoRef>(Quen::ResourcePool::GetManagedType(), rootPoolId)),
     _guestsvc(MakeRef<GuestsvcImpl>(*this))
{
   const auto root = MakeRef<PoolObject>(rootPoolId, rootPoolName, nullptr);
   Registry().Register(rootPoolId, root);
   _pools.emplace(rootPoolId, root);
   Registry().Register(AgentdCommon::moid_guestsvc, _guestsvc);
}

Inventory::~Inventory()
{
   Registry().Unregister(AgentdCommon::moid_guestsvc);
   for (const auto& [id, vm] : _vms) {
      Registry().Unregister(id);
   }
   for (const auto& [id, pool] : _pools) {
      Registry().Unregister(id);
   }
}

void Inventory::PublishPowerOp(VmObject& vm)
{
   constexpr int32_t kSuccess = 0;
   Publish(Guestsvc::MQ_VMEVENT_POWEROP + vm.GetId(),
           MakeRef<Guestsvc::VmPowerOpMsg>(vm.GetMoRef(), static_cast<int32_t>(vm.GetPowerState()),
                                           kSuccess));
}

void Inventory::RegisterVm(const Ref<VmObject>& vm)
{
   const std::lock_guard guard(_mutex);
   Registry().Register(vm->GetId(), vm);
   _vms.emplace(vm->GetId(), vm);
   if (vm->GetPowerState() == PowerState::POWERED_ON) {
      PublishPowerOp(*vm);
   }
}

void Inventory::SetPowerState(const std::string& id, PowerState state)
{
   const std::lock_guard guard(_mutex);
   const auto found = _vms.find(id);
   if (found != _vms.end() && found->second->SetPowerState(state)) {
      PublishPowerOp(*found->second);
   }
}

void Inventory::UnregisterVm(const std::string& id)
{
   const std::lock_guard guard(_mutex);
   const auto found = _vms.find(id);
   if (found == _vms.end()) {
      return;
   }
   const Ref<VmObject> vm = found->second;
   _vms.erase(found);
   Registry().Unregister(id);
   if (vm->SetPowerState(PowerState::POWERED_OFF)) {
      PublishPowerOp(*vm);
   }
   Publish(Guestsvc::MQ_VM_UNREGISTER + id, MakeRef<Guestsvc::VmUnregisterMsg>(vm->GetMoRef()));
}

Ref<VmObject> Inventory::FindVm(const std::string& id) const
{
   const std::lock_guard guard(_mutex);
   const auto found = _vms.find(id);
   return found == _vms.end() ? nullptr : found->second;
}

std::vector<Ref<VmObject>> Inventory::GetVms() const
{
   const std::lock_guard guard(_mutex);
   std::vector<Ref<VmObject>> vms;
   vms.reserve(_vms.size());
   for (const auto& [id, vm] : _vms) {
      vms.push_back(vm);
   }
   return vms;
}

void Inventory::GetPoweredOnVms(Ref<Plexa::DataArray<MoRef>>& vms) const
{
   vms = MakeRef<Plexa::DataArray<MoRef>>();
   for (const Ref<VmObject>& vm : GetVms()) {
      if (vm->GetPowerState() == PowerState::POWERED_ON) {
         vms->Append(vm->GetMoRef());
      }
   }
}

void Inventory::AddPool(const std::string& id, const std::string& name, const std::string& parentId)
{
   const std::lock_guard guard(_mutex);
   const auto parent = _pools.find(parentId);
   if (parent == _pools.end()) {
      throw InvalidArgumentException(
         Format("Cannot add the resource pool '%1': its parent '%2' does not exist", id, parentId));
   }
   const auto pool = MakeRef<PoolObject>(id, name, parent->second->GetMoRef());
   Registry().Register(id, pool);
   _pools.emplace(id, pool);
   parent->second->AddChild(pool->GetMoRef());
}

void Inventory::RemovePool(const std::string& id)
{
   const std::lock_guard guard(_mutex);
   if (id != _rootPool->GetId()) {
      RemovePoolLocked(id);
   }
}

void Inventory::RemovePoolLocked(const std::string& id)
{
   const auto found = _pools.find(id);
   if (found == _pools.end()) {
      return;
   }
   const Ref<PoolObject> pool = found->second;
   Ref<Plexa::DataArray<MoRef>> children;
   pool->GetChildPools(children);
   if (children) {
      for (const Ref<MoRef>& child : *children) {
         RemovePoolLocked(child->GetId());
      }
   }
   _pools.at(pool->GetParent()->GetId())->RemoveChild(id);
   _pools.erase(id);
   Registry().Unregister(id);
   Publish(AgentdCommon::MQ_RESOURCE_POOL_DESTROYED,
           MakeRef<AgentdCommon::ResourcePoolDestroyedMsg>(id));
}

Ref<PoolObject> Inventory::FindPool(const std::string& id) const
{
   const std::lock_guard guard(_mutex);
   const auto found = _pools.find(id);
   return found == _pools.end() ? nullptr : found->second;
}

std::vector<std::string> Inventory::GetPoolIds() const
{
   const std::lock_guard guard(_mutex);
   std::vector<std::string> ids;
   ids.reserve(_pools.size());
   for (const auto& [id, pool] : _pools) {
      ids.push_back(id);
   }
   return ids;
}

} // namespace Inventory
