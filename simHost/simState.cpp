#include "simHost/simState.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/clock.h"
#include "corvax/system.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace SimHost {

namespace {

constexpr std::string_view kVmPrefix = "vm-";
constexpr size_t kVmDigits = 4;
constexpr std::string_view kPoolPrefix = "pool-";
constexpr size_t kPoolDigits = 2;

constexpr int32_t kFirstWorldId = 1000;
constexpr int32_t kFirstCardKey = 4000;
constexpr uint32_t kPortsPerVm = 16; // above the highest number of NICs

std::string MakeId(std::string_view prefix, size_t digits, uint64_t number)
{
   const std::string text = std::to_string(number);
   return std::string(prefix) + std::string(digits - std::min(digits, text.size()), '0') + text;
}

/// The number in an id of exactly the form that MakeId returns.
std::optional<uint64_t> ParseId(std::string_view prefix, size_t digits, std::string_view id)
{
   if (!id.starts_with(prefix)) {
      return std::nullopt;
   }
   id.remove_prefix(prefix.size());
   uint64_t number = 0;
   const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), number);
   const bool isCanonical = id.size() == digits || (id.size() > digits && id.front() != '0');
   if (error != std::errc() || end != id.data() + id.size() || !isCanonical) {
      return std::nullopt;
   }
   return number;
}

int64_t GetCurrentSec()
{
   return Corvax::System::GetTime() / Corvax::kMicrosecondsPerSecond;
}

} // namespace

std::string GetVmId(uint64_t number)
{
   return MakeId(kVmPrefix, kVmDigits, number);
}

std::string GetPoolId(uint64_t number)
{
   return MakeId(kPoolPrefix, kPoolDigits, number);
}

std::string GetDiskName(uint64_t index)
{
   return "sim-disk-" + std::to_string(index);
}

std::string GetNicName(uint64_t index)
{
   return "sim-nic-" + std::to_string(index);
}

SimState::SimState(SimOptions options)
   : _options(std::move(options)), _hostKey(MakeKey(_options.seed, AgentdCommon::moid_hostsystem)),
     _vms(new Vm[_options.vms]), _diskParts(_options.disks, kHostStartSec),
     _nicParts(_options.nics, kHostStartSec), _timeSec(GetCurrentSec()), _vmTimeSec(_timeSec)
{
   for (uint64_t i = 0; i < _options.vms; ++i) {
      const EntityKey key = MakeKey(_options.seed, GetVmId(i + 1));
      const int64_t startSec = GetFirstStartSec(key);
      VmShape& shape = _vms[i].shape;
      shape.key = key;
      shape.startSec = startSec;
      shape.vcpus.assign(_options.vcpus, startSec);
      shape.cards.assign(_options.cards, startSec);
      shape.images.assign(std::min(_options.disks, kMostImages), startSec);
      shape.isStuck = i < _options.stuck;
      shape.isFailing = i + _options.failing >= _options.vms;
      _vms[i].memoryKb = GetMemorySizeKb(key);
   }
   for (uint64_t i = 0; i <= _options.pools; ++i) {
      const EntityKey key = MakeKey(_options.seed, i == 0 ? kRootPoolId : GetPoolId(i));
      _pools.push_back({key, GetMemorySizeKb(key)});
   }
   for (uint64_t i = 0; i < _options.disks; ++i) {
      const std::string name = GetDiskName(i);
      _disks.push_back({{name, MakeKey(_options.seed, name)}, {}});
   }
   for (uint64_t i = 0; i < _options.nics; ++i) {
      const std::string name = GetNicName(i);
      _nics.push_back({name, MakeKey(_options.seed, name)});
   }
   for (size_t i = 0; i < kSystemGroups.size(); ++i) {
      _systemGroups[i] = MakeKey(_options.seed, kSystemGroups[i]);
   }
   PlaceImages();
}

/// A world's record stays with its disk even while the VM is off or unregistered: a disk reports
/// all of its worlds, and the collector picks those of the VMs that it samples.
void SimState::PlaceImages()
{
   for (uint64_t i = 0; i < _options.vms && !_disks.empty(); ++i) {
      const auto [first, second] = GetImageDisks(_vms[i].shape.key, _disks.size());
      _disks[first].images.push_back({i, 0});
      if (second != first) {
         _disks[second].images.push_back({i, 1});
      }
   }
}

void SimState::UpdateTime()
{
   _timeSec = GetCurrentSec();
   _vmTimeSec = _timeSec + GetLatenessSec(_hostKey, _options.late, _timeSec);
}

uint64_t SimState::FindVmIndex(std::string_view id) const
{
   const std::optional<uint64_t> number = ParseId(kVmPrefix, kVmDigits, id);
   return number && *number >= 1 && *number <= _options.vms ? *number - 1 : _options.vms;
}

SimState::Vm* SimState::FindVm(std::string_view id) const
{
   const uint64_t index = FindVmIndex(id);
   return index < _options.vms ? &_vms[index] : nullptr;
}

const SimState::Pool* SimState::FindPool(std::string_view id) const
{
   if (id == kRootPoolId) {
      return &_pools.front();
   }
   const std::optional<uint64_t> number = ParseId(kPoolPrefix, kPoolDigits, id);
   return number && *number >= 1 && *number <= _options.pools ? &_pools[*number] : nullptr;
}

const EntityKey* SimState::FindSystemGroup(std::string_view key) const
{
   const auto found = std::ranges::find(kSystemGroups, key);
   return found == kSystemGroups.end()
             ? nullptr
             : &_systemGroups[static_cast<size_t>(found - kSystemGroups.begin())];
}

int32_t SimState::GetWorldId(uint64_t vmIndex)
{
   return kFirstWorldId + static_cast<int32_t>(vmIndex) + 1;
}

int32_t SimState::GetCardKey(uint64_t card)
{
   return kFirstCardKey + static_cast<int32_t>(card);
}

uint32_t SimState::GetPortId(uint64_t vmIndex, int32_t cardKey)
{
   return (static_cast<uint32_t>(vmIndex) + 1) * kPortsPerVm +
          static_cast<uint32_t>(cardKey - kFirstCardKey);
}

SimState::Card SimState::FindCard(uint32_t portId) const
{
   const uint64_t number = portId / kPortsPerVm;
   const uint64_t card = portId % kPortsPerVm;
   if (number < 1 || number > _options.vms || card >= _vms[number - 1].shape.cards.size()) {
      return {};
   }
   return {&_vms[number - 1].shape, card};
}

void SimState::SetDisks(uint64_t count, int64_t timeSec)
{
   _removedDisksKb +=
      GetDisksKb(_diskParts, count, [this](uint64_t disk) { return _disks[disk].key; }, timeSec);
   _diskParts.resize(count, timeSec);
}

void SimState::SetNics(uint64_t count, int64_t timeSec)
{
   _removedNicsKb +=
      GetCardsKb(_nicParts, count, [this](uint64_t nic) { return _nics[nic].key; }, timeSec);
   _nicParts.resize(count, timeSec);
}

} // namespace SimHost
