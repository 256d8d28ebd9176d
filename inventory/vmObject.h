#pragma once

#include "guestsvc/guestsvc.h"

#include <mutex>
#include <string>

namespace Inventory {

/// What every backend's virtual machine has in common: identity, name, pool, configuration and
/// power state. A backend adds where its figures come from.
///
/// Locking: name, pool, configuration and power state have a lock of their own, a leaf, so that
/// they can be changed while a user of the object holds it locked.
class VmObject : public Guestsvc::HaVirtualMachine, public Corvax::LockableObjectImpl {
public:
   /// `id` is at most kMaxIdBytes long.
   explicit VmObject(const std::string& id);
   ~VmObject() override;

   Plexa::MoRef* GetMoRef() override { return _moRef.Get(); }
   const std::string& GetId() const { return _moRef->GetId(); }

   std::string GetName() override;
   /// The resource pool; null for none.
   Corvax::Ref<Plexa::MoRef> GetParent() override;
   Corvax::Ref<Quen::Vm::ConfigInfo> GetConfig() override;
   Corvax::Ref<Quen::Vm::RuntimeInfo> GetRuntime() override;
   Quen::Vm::PowerState GetPowerState();

   /// The name is the configuration's.
   void SetConfig(Corvax::Ref<Quen::Vm::ConfigInfo> config);
   /// Null for none.
   void SetPool(Corvax::Ref<Plexa::MoRef> pool);
   /// False when it is the state that it was in.
   bool SetPowerState(Quen::Vm::PowerState state);

private:
   const Corvax::Ref<Plexa::MoRef> _moRef;
   std::mutex _mutex;
   Corvax::Ref<Quen::Vm::ConfigInfo> _config;
   Corvax::Ref<Quen::Vm::RuntimeInfo> _runtime;
   Corvax::Ref<Plexa::MoRef> _pool;
};

} // namespace Inventory
