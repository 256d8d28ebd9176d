#pragma once

#include "inventory/poolObject.h"
#include "inventory/vmObject.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Inventory {

/// Limit of the depot's id map for an entity's id.
constexpr size_t kMaxIdBytes = 255;

/// Truncates a text of more than `maxBytes` and appends a hash of the whole, so that different
/// texts stay different. `maxBytes` is at least 32.
std::string BoundedId(std::string_view text, size_t maxBytes = kMaxIdBytes);

/// The virtual machines and resource pools that a backend has found. Registers them in the agent's
/// object registry and publishes changes on the agent's channels. Also registers the virtual
/// machine service, "ha-guestsvc", for its own lifetime.
///
/// Order: an object is registered, changed or unregistered before the message is published, so that
/// a subscriber finds the new state.
/// Locking: its own; the registry's, the channels' and the objects' leaf locks are taken under it.
/// Any thread may call.
class Inventory {
public:
   /// Adds the root pool.
   Inventory(const std::string& rootPoolId, const std::string& rootPoolName);
   ~Inventory();
   Inventory(const Inventory&) = delete;
   Inventory& operator=(const Inventory&) = delete;

   /// Publishes a power operation when the object is powered on. InvalidArgumentException when the
   /// id is in use.
   void RegisterVm(const Corvax::Ref<VmObject>& vm);
   /// Publishes a power operation when the state changes; does nothing for an unknown id.
   void SetPowerState(const std::string& id, Quen::Vm::PowerState state);
   /// Publishes a power operation unless it was off, then that it is unregistered; does nothing for
   /// an unknown id.
   void UnregisterVm(const std::string& id);

   Corvax::Ref<VmObject> FindVm(const std::string& id) const;
   /// In the order of ids.
   std::vector<Corvax::Ref<VmObject>> GetVms() const;
   void GetPoweredOnVms(Corvax::Ref<Plexa::DataArray<Plexa::MoRef>>& vms) const;

   const Corvax::Ref<Plexa::MoRef>& GetRootPool() const { return _rootPool; }
   /// InvalidArgumentException when the id is in use or the parent does not exist.
   void AddPool(const std::string& id, const std::string& name, const std::string& parentId);
   /// Including the pools below it; publishes that each is destroyed, children first. Does nothing
   /// for an unknown id and for the root.
   void RemovePool(const std::string& id);
   /// Null for an unknown id.
   Corvax::Ref<PoolObject> FindPool(const std::string& id) const;
   /// In the order of ids, including the root.
   std::vector<std::string> GetPoolIds() const;

private:
   void PublishPowerOp(VmObject& vm);
   void RemovePoolLocked(const std::string& id);

   mutable std::mutex _mutex;
   const Corvax::Ref<Plexa::MoRef> _rootPool;
   std::map<std::string, Corvax::Ref<VmObject>> _vms;
   std::map<std::string, Corvax::Ref<PoolObject>> _pools;
   Corvax::Ref<Corvax::Object> _guestsvc;
};

} // namespace Inventory
