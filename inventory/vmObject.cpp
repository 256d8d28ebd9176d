#include "inventory/vmObject.h"

namespace Inventory {

using Corvax::MakeRef;
using Corvax::Ref;

VmObject::VmObject(const std::string& id)
   : _moRef(MakeRef<Plexa::MoRef>(Quen::VirtualMachine::GetManagedType(), id)),
     _config(MakeRef<Quen::Vm::ConfigInfo>()), _runtime(MakeRef<Quen::Vm::RuntimeInfo>())
{
   _config->name = id;
}

VmObject::~VmObject() = default;

std::string VmObject::GetName()
{
   return GetConfig()->name;
}

Ref<Plexa::MoRef> VmObject::GetParent()
{
   const std::lock_guard guard(_mutex);
   return _pool;
}

Ref<Quen::Vm::ConfigInfo> VmObject::GetConfig()
{
   const std::lock_guard guard(_mutex);
   return _config;
}

Ref<Quen::Vm::RuntimeInfo> VmObject::GetRuntime()
{
   const std::lock_guard guard(_mutex);
   return _runtime;
}

Quen::Vm::PowerState VmObject::GetPowerState()
{
   return GetRuntime()->GetPowerState();
}

void VmObject::SetConfig(Ref<Quen::Vm::ConfigInfo> config)
{
   const std::lock_guard guard(_mutex);
   _config = std::move(config);
}

void VmObject::SetPool(Ref<Plexa::MoRef> pool)
{
   const std::lock_guard guard(_mutex);
   _pool = std::move(pool);
}

bool VmObject::SetPowerState(Quen::Vm::PowerState state)
{
   const std::lock_guard guard(_mutex);
   if (_runtime->powerState == state) {
      return false;
   }
   // A new record: another thread may still be reading the old one.
   _runtime = MakeRef<Quen::Vm::RuntimeInfo>();
   _runtime->powerState = state;
   return true;
}

} // namespace Inventory
