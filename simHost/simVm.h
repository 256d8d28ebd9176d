#pragma once

#include "inventory/vmObject.h"
#include "simHost/simState.h"

namespace SimHost {

/// A simulated virtual machine. `index` is its number - 1.
class SimVm : public Inventory::VmObject {
public:
   SimVm(Corvax::Ref<SimState> state, uint64_t index);
   ~SimVm() override;

   /// Gives the VM a new configuration with the NICs that its shape has.
   void UpdateConfig();

   bool IsStatsAvailable() override;
   uint64_t GetHeartbeatCount() override;
   int32_t GetWorldId() override { return SimState::GetWorldId(_index); }
   uint32_t GetPortId(Quen::Vm::Device::VirtualEthernetCard* card) override;
   int64_t GetNetworkSumCorrectionKb() override { return GetShape().removedCardsKb; }

private:
   const VmShape& GetShape() const { return _state->GetVm(_index).shape; }

   const Corvax::Ref<SimState> _state;
   const uint64_t _index;
};

} // namespace SimHost
