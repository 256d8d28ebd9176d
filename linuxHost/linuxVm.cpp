#include "linuxHost/linuxVm.h"

#include <algorithm>

namespace LinuxHost {

using Corvax::Ref;
using Quen::Vm::PowerState;

namespace {

/// The first run after a machine's start may come before the first snapshot with it.
constexpr uint64_t kRunsMissedUntilLogged = 2;

} // namespace

LinuxVm::LinuxVm(const std::string& id, const Inventory::Inventory& inventory,
                 const SnapshotSource& snapshots, Corvax::Logger* logger)
   : VmObject(id), _inventory(inventory), _snapshots(snapshots), _logger(logger),
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
      _logger->Log(Corvax::kLogWarning,
                   "Virtual machine %1 (%2) has no statistics: it does not answer the hypervisor",
                   GetName(), GetId());
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
   if (found != snapshot->vms.end() && found->second.guestReportSec != _lastReportSec) {
      _lastReportSec = found->second.guestReportSec;
      ++_heartbeatCount;
   }
   return _heartbeatCount;
}

int32_t LinuxVm::GetWorldId()
{
   return GetPlaces()->pid;
}

uint32_t LinuxVm::GetPortId(Quen::Vm::Device::VirtualEthernetCard* card)
{
   const auto places = GetPlaces();
   const auto found = std::ranges::find(places->cards, card->GetKey(), &VmPlaces::Card::key);
   return found == places->cards.end() ? 0 : found->portId;
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
