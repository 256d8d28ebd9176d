#pragma once

#include "corvax/lockable.h"
#include "plexa/dataArray.h"
#include "quen/inventory.h"

#include <cstdint>

namespace Guestsvc {

constexpr char MQ_VMEVENT_POWEROP[] = "/vm/runtime/powerop/";
constexpr char MQ_VM_UNREGISTER[] = "/vm/unregister/";
constexpr char MQ_VMEVENT_HEARTBEAT[] = "/vm/runtime/heartbeat/";
constexpr char MQ_VM_DISK_CHANGE[] = "/vm/disk/";
constexpr char MQ_VM_RECONFIG[] = "/vm/reconfig/";

/// One registered virtual machine. Locking: callers lock it around a group of calls.
class HaVirtualMachine : public virtual Quen::VirtualMachine,
                         public virtual Corvax::LockableObject {
public:
   /// Whether the machine's state permits sampling.
   virtual bool IsStatsAvailable() = 0;
   virtual Corvax::Ref<Quen::Vm::ConfigInfo> GetConfig() = 0;
   virtual Corvax::Ref<Quen::Vm::RuntimeInfo> GetRuntime() = 0;
   virtual uint64_t GetHeartbeatCount() = 0;
   /// The machine's world, -1 for none.
   virtual int32_t GetWorldId() = 0;
   /// The kernel's id of the port that a NIC is attached to.
   virtual uint32_t GetPortId(Quen::Vm::Device::VirtualEthernetCard* card) = 0;
   /// To be added to the sum of the KB that the connected NICs received and sent, so that it grows
   /// by their traffic alone when one is connected or disconnected. 0 until one is.
   virtual int64_t GetNetworkSumCorrectionKb();

protected:
   ~HaVirtualMachine() override;
};

/// The virtual-machine service.
class Guestsvc : public virtual Corvax::Object {
public:
   virtual void GetPoweredOnVms(Corvax::Ref<Plexa::DataArray<Plexa::MoRef>>& vms) = 0;

protected:
   ~Guestsvc() override;
};

/// A power operation of a virtual machine has ended; published on MQ_VMEVENT_POWEROP + id.
struct VmPowerOpMsg : Corvax::ObjectImpl {
   ~VmPowerOpMsg() override;

   VmPowerOpMsg(Corvax::Ref<Plexa::MoRef> machine, int32_t op, int32_t outcome)
      : vm(std::move(machine)), operation(op), result(outcome)
   {
   }

   const Corvax::Ref<Plexa::MoRef> vm;
   const int32_t operation;
   const int32_t result;
};

/// A virtual machine is no longer registered; published on MQ_VM_UNREGISTER + id.
struct VmUnregisterMsg : Corvax::ObjectImpl {
   ~VmUnregisterMsg() override;

   explicit VmUnregisterMsg(Corvax::Ref<Plexa::MoRef> machine) : vm(std::move(machine)) {}

   const Corvax::Ref<Plexa::MoRef> vm;
};

} // namespace Guestsvc
