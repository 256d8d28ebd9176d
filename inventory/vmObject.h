#pragma once

#include "guestsvc/guestsvc.h"

#include <mutex>
#include <string>

namespace Inventory {

/// The part of a virtual machine that is the same for every backend: identity, name, pool,
/// configuration and power state. A backend adds the source of its figures.
///
/// Locking: name, pool, configuration and power state have a leaf lock, so that they can be changed
/// while the object itself is locked.
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
   /// False when the state does not change.
   bool SetPowerState(Quen::Vm::PowerState state);

private:
   const Corvax::Ref<Plexa::MoRef> _moRef;
   std::mutex _mutex;
   Corvax::Ref<Quen::Vm::ConfigInfo> _config;
   Corvax::Ref<Quen::Vm::RuntimeInfo> _runtime;
   Corvax::Ref<Plexa::MoRef> _pool;
};

} // namespace Inventory
