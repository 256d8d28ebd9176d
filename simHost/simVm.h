#pragma once

#include "inventory/vmObject.h"
#include "simHost/simState.h"

namespace SimHost {

/// A simulated virtual machine. `index` is its number less one.
class SimVm : public Inventory::VmObject {
public:
   SimVm(Corvax::Ref<SimState> state, uint64_t index);
   ~SimVm() override;

   /// Sets one of the machine's flags; false when it is so already. Takes the machine's lock, so
   /// that a pass that is at this machine sees one state of it.
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
