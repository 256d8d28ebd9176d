#include "simHost/simVm.h"

namespace SimHost {

namespace {

using Corvax::MakeRef;
using Corvax::Ref;
using Quen::Vm::Device::VirtualEthernetCard;

Ref<VirtualEthernetCard> MakeCard(uint64_t card)
{
   const auto backing = MakeRef<VirtualEthernetCard::NetworkBackingInfo>();
   backing->deviceName = "sim network";
   const auto device = MakeRef<VirtualEthernetCard>();
   device->key = SimState::GetCardKey(card);
   device->backing = backing;
   device->connectable = MakeRef<Quen::Vm::Device::ConnectInfo>();
   device->connectable->connected = true;
   return device;
}

} // namespace

SimVm::SimVm(Ref<SimState> state, uint64_t index)
   : VmObject(GetVmId(index + 1)), _state(std::move(state)), _index(index)
{
   UpdateConfig();
   SetPowerState(Quen::Vm::PowerState::POWERED_ON);
}

SimVm::~SimVm() = default;

void SimVm::UpdateConfig()
{
   const auto config = MakeRef<Quen::Vm::ConfigInfo>();
   config->name = "sim vm " + std::to_string(_index + 1);
   config->hardware.memoryMb = static_cast<int64_t>(_state->GetVm(_index).memoryKb / 1024);
   config->hardware.device = MakeRef<Plexa::DataArray<Quen::Vm::Device::VirtualDevice>>();
   for (uint64_t card = 0; card < GetShape().cards.size(); ++card) {
      config->hardware.device->Append(MakeCard(card));
   }
   SetConfig(config);
}

bool SimVm::IsStatsAvailable()
{
   return !GetShape().isStuck && GetPowerState() == Quen::Vm::PowerState::POWERED_ON;
}

uint64_t SimVm::GetHeartbeatCount()
{
   return GetHeartbeats(GetShape().key, {_state->GetVmTimeSec(), GetShape().startSec});
}

uint32_t SimVm::GetPortId(VirtualEthernetCard* card)
{
   return SimState::GetPortId(_index, card->GetKey());
}

} // namespace SimHost
