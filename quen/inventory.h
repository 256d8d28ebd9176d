#pragma once

#include "plexa/dataArray.h"
#include "plexa/managedObject.h"

#include <cstdint>
#include <string>

/// The managed objects and data objects of the inventory, as far as statistics meet them.
namespace Quen {

/// What the inventory holds: a host, a virtual machine, a resource pool.
class ManagedEntity : public virtual Plexa::ManagedObject {
public:
   /// For people; need not be unique. The id where there is no better one.
   virtual std::string GetName() { return GetMoRef()->GetId(); }
   /// The entity that this one belongs to, null when there is none.
   virtual Corvax::Ref<Plexa::MoRef> GetParent() { return nullptr; }

protected:
   ~ManagedEntity() override;
};

class VirtualMachine : public virtual ManagedEntity {
public:
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
   /// The child pools, in order; unset when there are none.
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
   Corvax::Ref<Plexa::DataArray<SystemResourceInfo>> child; ///< unset when there are none
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

/// What a device is connected to.
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

   /// The card is on a network of the host, and so has a port there.
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
   Corvax::Ref<Plexa::DataArray<Device::VirtualDevice>> device; ///< unset when there are none
};

struct ConfigInfo : Corvax::ObjectImpl {
   ~ConfigInfo() override;

   const VirtualHardware& GetHardware() const { return hardware; }

   std::string name;
   VirtualHardware hardware;
};

} // namespace Vm

} // namespace Quen
