#pragma once

#include "inventory/vmObject.h"
#include "simHost/simState.h"

namespace SimHost {

/// A simulated virtual machine. `index` is its number - 1.
class SimVm : public Inventory::VmObject {
public:
   SimVm(Corvax::Ref<SimState> state, uint64_t index);
   ~SimVm() override;

   /// Sets a flag; returns false if it already has this value. Takes the VM's lock, so that a run
   /// sees the VM in one state.
   bool SetFlag(std::atomic<bool> SimState::Vm::* flag, bool value);

   bool IsStatsAvailable() override;
   uint64_t GetHeartbeatCount() override;
   int32_t GetWorldId() override { return SimState::GetWorldId(_index); }
   uint32_t GetPortId(Quen::Vm::Device::VirtualEthernetCard* card) override;

private:
   const Corvax::Ref<SimState> _state;
   const uint64_t _index;
};

} // namespace SimHost
