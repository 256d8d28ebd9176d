#pragma once

#include "plexa/dataArray.h"
#include "plexa/managedObject.h"

#include <cstdint>
#include <string>

/// The managed objects and data objects of the inventory that statistics need.
namespace Quen {

/// An object of the inventory: the host, a virtual machine or a resource pool.
class ManagedEntity : public virtual Plexa::ManagedObject {
public:
   /// The display name, not necessarily unique; the id if there is none.
   virtual std::string GetName() { return GetMoRef()->GetId(); }
   /// The entity that contains this one; null if there is none.
   virtual Corvax::Ref<Plexa::MoRef> GetParent() { return nullptr; }

protected:
   ~ManagedEntity() override;
};

namespace Vm {

/// How current a virtual machine's figures are.
struct Freshness {
   enum class State {
      FRESH,
      PARTLY, ///< some of them are missing
      STALE,  ///< all of them are missing
      OFF,    ///< it does not run
   };

   State state = State::OFF;
   int64_t sinceSec = 0; ///< since the epoch, when the state began; 0: unknown
   std::string reason;   ///< for PARTLY and STALE
};

} // namespace Vm

class VirtualMachine : public virtual ManagedEntity {
public:
   /// FRESH, since an unknown time, unless a backend knows more.
   virtual Vm::Freshness GetFreshness();

   static const Plexa::ManagedType& GetManagedType();

protected:
   ~VirtualMachine() override;
};

class HostSystem : public virtual ManagedEntity {
public:
   static const Plexa::ManagedType& GetManagedType();

protected:
   ~HostSystem() override;
};

class ResourcePool : public virtual ManagedEntity {
public:
   /// The child pools, in order; null if there are none.
   virtual void GetChildPools(Corvax::Ref<Plexa::DataArray<Plexa::MoRef>>& pools) = 0;

   static const Plexa::ManagedType& GetManagedType();

protected:
   ~ResourcePool() override;
};

namespace Host {

/// A node of the host's tree of system resource groups.
struct SystemResourceInfo : Corvax::ObjectImpl {
   ~SystemResourceInfo() override;

   const std::string& GetKey() const { return key; }
   Plexa::DataArray<SystemResourceInfo>* GetChild() const { return child.Get(); }

   std::string key;
   Corvax::Ref<Plexa::DataArray<SystemResourceInfo>> child; ///< null if there are none
};

} // namespace Host

namespace Vm {

enum class PowerState : int32_t {
   POWERED_OFF = 0,
   POWERED_ON = 1,
   SUSPENDED = 2,
};

struct RuntimeInfo : Corvax::ObjectImpl {
   ~RuntimeInfo() override;

   PowerState GetPowerState() const { return powerState; }

   PowerState powerState = PowerState::POWERED_OFF;
};

namespace Device {

struct ConnectInfo : Corvax::ObjectImpl {
   ~ConnectInfo() override;

   bool IsConnected() const { return connected; }

   bool connected = false;
};

/// The resource of the host behind a device.
struct BackingInfo : Corvax::ObjectImpl {
   ~BackingInfo() override;
};

struct VirtualDevice : Corvax::ObjectImpl {
   ~VirtualDevice() override;

   int32_t GetKey() const { return key; }
   BackingInfo* GetBacking() const { return backing.Get(); }
   ConnectInfo* GetConnectable() const { return connectable.Get(); }

   int32_t key = 0;
   Corvax::Ref<BackingInfo> backing;
   Corvax::Ref<ConnectInfo> connectable;
};

struct VirtualEthernetCard : VirtualDevice {
   ~VirtualEthernetCard() override;

   /// The NIC is on a network of the host, where it has a port.
   struct NetworkBackingInfo : BackingInfo {
      ~NetworkBackingInfo() override;

      std::string deviceName;
   };
};

} // namespace Device

struct VirtualHardware {
   int64_t GetMemoryMB() const { return memoryMb; }
   Plexa::DataArray<Device::VirtualDevice>* GetDevice() const { return device.Get(); }

   int64_t memoryMb = 0;
   Corvax::Ref<Plexa::DataArray<Device::VirtualDevice>> device; ///< null if there are none
};

struct ConfigInfo : Corvax::ObjectImpl {
   ~ConfigInfo() override;

   const VirtualHardware& GetHardware() const { return hardware; }

   std::string name;
   VirtualHardware hardware;
};

} // namespace Vm

} // namespace Quen
