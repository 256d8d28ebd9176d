#pragma once

#include "inventory/poolObject.h"
#include "inventory/vmObject.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Inventory {

/// What the depot's id map can hold of an entity's id.
constexpr size_t kMaxIdBytes = 255;

/// The text as it is, or, where it is longer, cut and ended with a hash of the whole, so that two
/// texts that differ stay apart. `maxBytes` is at least 32.
std::string BoundedId(std::string_view text, size_t maxBytes = kMaxIdBytes);

/// The virtual machines and resource pools that a backend has found: puts them into the agent's
/// object registry and tells on the agent's channels what became of them. Holds the virtual-machine
/// service, "ha-guestsvc", in the registry for as long as it lives itself.
///
/// Order: an object is registered, changed or taken out first and the message published then, so
/// that who hears of it finds it so.
/// Locking: its own; the registry's, the channels' and the objects' leaf locks are taken under it.
/// Any thread may call.
class Inventory {
public:
   /// The root pool is there from the start.
   Inventory(const std::string& rootPoolId, const std::string& rootPoolName);
   ~Inventory();
   Inventory(const Inventory&) = delete;
   Inventory& operator=(const Inventory&) = delete;

   /// In the state that the object is in; publishes a power operation when that is powered on.
   /// InvalidArgumentException when the id is taken.
   void RegisterVm(const Corvax::Ref<VmObject>& vm);
   /// Publishes a power operation when the state is another one than before; does nothing for an
   /// unknown id.
   void SetPowerState(const std::string& id, Quen::Vm::PowerState state);
   /// Publishes a power operation unless it was off, and that it is unregistered; does nothing
   /// for an unknown id.
   void UnregisterVm(const std::string& id);

   Corvax::Ref<VmObject> FindVm(const std::string& id) const;
   /// In the order of ids.
   std::vector<Corvax::Ref<VmObject>> GetVms() const;
   void GetPoweredOnVms(Corvax::Ref<Plexa::DataArray<Plexa::MoRef>>& vms) const;

   const Corvax::Ref<Plexa::MoRef>& GetRootPool() const { return _rootPool; }
   /// InvalidArgumentException when the id is taken or there is no such parent.
   void AddPool(const std::string& id, const std::string& name, const std::string& parentId);
   /// With all below it; publishes the end of each, children first. Does nothing for an unknown id
   /// and the root.
   void RemovePool(const std::string& id);
   /// Null when there is none.
   Corvax::Ref<PoolObject> FindPool(const std::string& id) const;
   /// In the order of ids, with the root.
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
