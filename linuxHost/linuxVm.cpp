#include "linuxHost/linuxVm.h"

#include "linuxHost/kernel/units.h"

#include <algorithm>
#include <utility>

namespace LinuxHost {

using Corvax::Ref;
using Quen::Vm::PowerState;

namespace {

/// The first two runs after a machine's start may come before its second reading.
constexpr uint64_t kRunsMissedUntilLogged = 3;

} // namespace

LinuxVm::LinuxVm(const std::string& id, int32_t worldId, const Inventory::Inventory& inventory,
                 const SnapshotSource& snapshots, Corvax::Logger* logger)
   : VmObject(id), _worldId(worldId), _inventory(inventory), _snapshots(snapshots), _logger(logger),
     _places(std::make_shared<VmPlaces>())
{
}

Ref<Plexa::MoRef> LinuxVm::GetParent()
{
   const std::string poolId = [this] {
      const std::lock_guard guard(_placesMutex);
      return _poolId;
   }();
   const Ref<Inventory::PoolObject> pool = _inventory.FindPool(poolId);
   return pool ? pool->GetMoRef() : _inventory.GetRootPool();
}

Quen::Vm::Freshness LinuxVm::GetFreshness()
{
   return GetPowerState() == PowerState::POWERED_ON ? _snapshots.GetFreshness(GetId())
                                                    : Quen::Vm::Freshness();
}

bool LinuxVm::IsStatsAvailable()
{
   if (GetPowerState() != PowerState::POWERED_ON) {
      return false;
   }
   const auto snapshot = _snapshots.GetSnapshot();
   if (!snapshot) {
      return false; // all virtual machines are missing, which is not this one's fault
   }
   const bool isPresent = snapshot->vms.contains(GetId());
   if (isPresent) {
      if (_runsMissed >= kRunsMissedUntilLogged) {
         _logger->Log(Corvax::kLogNotice, "Virtual machine %1 (%2) has statistics again", GetName(),
                      GetId());
      }
      _runsMissed = 0;
   } else if (++_runsMissed == kRunsMissedUntilLogged) {
      const std::string reason = _snapshots.GetFreshness(GetId()).reason;
      _logger->Log(Corvax::kLogWarning, "Virtual machine %1 (%2) has no statistics: %3", GetName(),
                   GetId(), reason.empty() ? "the hypervisor answers too late" : reason);
   }
   return isPresent;
}

uint64_t LinuxVm::GetHeartbeatCount()
{
   const auto snapshot = _snapshots.GetSnapshot();
   if (!snapshot) {
      return _heartbeatCount;
   }
   const auto found = snapshot->vms.find(GetId());
   if (found != snapshot->vms.end() && found->second.memory &&
       found->second.memory->guestReportSec != _lastReportSec) {
      _lastReportSec = found->second.memory->guestReportSec;
      ++_heartbeatCount;
   }
   return _heartbeatCount;
}

uint32_t LinuxVm::GetPortId(Quen::Vm::Device::VirtualEthernetCard* card)
{
   const auto places = GetPlaces();
   const auto found = std::ranges::find(places->cards, card->GetKey(), &VmPlaces::Card::key);
   return found == places->cards.end() ? 0 : found->portId;
}

/// Over the NICs that the collector counts: connected, and with a port.
int64_t LinuxVm::GetNetworkSumCorrectionKb()
{
   SteadySum::Counters readings;
   const auto snapshot = _snapshots.GetSnapshot();
   const auto figures = snapshot ? snapshot->vms.find(GetId()) : decltype(snapshot->vms.end())();
   if (!snapshot || figures == snapshot->vms.end()) {
      return 0;
   }
   const Ref<Quen::Vm::ConfigInfo> config = GetConfig();
   const auto places = GetPlaces();
   for (const Ref<Quen::Vm::Device::VirtualDevice>& device : *config->hardware.device) {
      const auto place = std::ranges::find(places->cards, device->GetKey(), &VmPlaces::Card::key);
      if (place == places->cards.end() || !device->GetConnectable()->IsConnected()) {
         continue;
      }
      const auto card = std::ranges::find(figures->second.cards, place->tap, &VmCardFigures::tap);
      if (card != figures->second.cards.end()) {
         readings[card->tap] = card->bytesReceived / kBytesPerKb + card->bytesSent / kBytesPerKb;
      }
   }
   return _networkSum.GetCorrection(std::move(readings));
}

void LinuxVm::SetPoolId(const std::string& poolId)
{
   const std::lock_guard guard(_placesMutex);
   _poolId = poolId;
}

void LinuxVm::SetPlaces(std::shared_ptr<const VmPlaces> places)
{
   const std::lock_guard guard(_placesMutex);
   _places = std::move(places);
}

std::shared_ptr<const VmPlaces> LinuxVm::GetPlaces() const
{
   const std::lock_guard guard(_placesMutex);
   return _places;
}

} // namespace LinuxHost
