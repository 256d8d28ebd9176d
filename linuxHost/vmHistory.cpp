#include "linuxHost/vmHistory.h"

#include "corvax/system.h"
#include "linuxHost/kernel/saturate.h"

#include <algorithm>
#include <utility>

namespace LinuxHost {

namespace {

using Corvax::kMicrosecondsPerSecond;
using Quen::Vm::Freshness;

/// A time between two readings, as their distance and the time's from the older one.
struct Position {
   uint64_t wholeUs = 0;
   uint64_t partUs = 0;

   uint64_t Between(uint64_t older, uint64_t newer) const
   {
      return older + Scale(newer - older, partUs, wholeUs);
   }
};

/// Where the time is between the two readings; unset when it is not.
template <class Readings>
std::optional<Position> FindPosition(const Readings& readings, int64_t timeUs)
{
   if (!readings.older || timeUs < readings.older->takenUs || timeUs > readings.newer->takenUs) {
      return std::nullopt;
   }
   return Position{static_cast<uint64_t>(readings.newer->takenUs - readings.older->takenUs),
                   static_cast<uint64_t>(timeUs - readings.older->takenUs)};
}

/// Unset when a counter has decreased: it is not the same device's any more.
template <class Figures, size_t Count>
std::optional<Figures> Interpolate(const Figures& older, const Figures& newer,
                                   uint64_t Figures::* const (&counters)[Count],
                                   const Position& position)
{
   Figures figures = newer;
   for (uint64_t Figures::* const counter : counters) {
      if (newer.*counter < older.*counter) {
         return std::nullopt;
      }
      figures.*counter = position.Between(older.*counter, newer.*counter);
   }
   return figures;
}

/// The figures of those that both readings name.
template <class Figures, size_t Count>
std::vector<Figures>
InterpolateNamed(const std::vector<Figures>& older, const std::vector<Figures>& newer,
                 std::string Figures::* name, uint64_t Figures::* const (&counters)[Count],
                 const Position& position)
{
   std::vector<Figures> result;
   result.reserve(newer.size());
   for (const Figures& one : newer) {
      const auto before = std::ranges::find(older, one.*name, name);
      if (before != older.end()) {
         if (auto figures = Interpolate(*before, one, counters, position)) {
            result.push_back(std::move(*figures));
         }
      }
   }
   return result;
}

constexpr uint64_t VcpuFigures::* kVcpuCounters[] = {&VcpuFigures::usedUs, &VcpuFigures::waitUs,
                                                     &VcpuFigures::readyUs};
constexpr uint64_t VmCardFigures::* kCardCounters[] = {
   &VmCardFigures::bytesReceived, &VmCardFigures::bytesSent, &VmCardFigures::packetsReceived,
   &VmCardFigures::packetsSent};

/// A virtual CPU that was plugged in between the readings began at zero.
std::vector<VcpuFigures> InterpolateVcpus(const std::vector<VcpuFigures>& older,
                                          const std::vector<VcpuFigures>& newer,
                                          const Position& position)
{
   std::vector<VcpuFigures> result;
   result.reserve(newer.size());
   for (size_t i = 0; i < newer.size(); ++i) {
      const VcpuFigures before = i < older.size() ? older[i] : VcpuFigures();
      const auto figures = Interpolate(before, newer[i], kVcpuCounters, position);
      result.push_back(figures
                          ? *figures
                          : Interpolate(VcpuFigures(), newer[i], kVcpuCounters, position).value());
   }
   return result;
}

/// The wall-clock second of a monotonic time.
int64_t ToWallSec(int64_t monotonicUs)
{
   return (Corvax::System::GetTime() - Corvax::System::GetMonotonicTime() + monotonicUs) /
          kMicrosecondsPerSecond;
}

} // namespace

VmHistory::VmHistory(int intervalSec) : _intervalUs(intervalSec * kMicrosecondsPerSecond) {}

/// Of readings in the same quarter of an interval, such as those of one poll, the last counts.
template <class Figures>
void VmHistory::AddReading(Readings<Figures>& readings, int64_t takenUs,
                           std::optional<Figures>& figures)
{
   if (!figures || (readings.newer && takenUs <= readings.newer->takenUs)) {
      return;
   }
   if (!IsCurrent(readings, takenUs)) {
      readings.sinceUs = takenUs;
   }
   if (readings.newer && takenUs - readings.newer->takenUs > _intervalUs / 4) {
      readings.older = std::move(readings.newer);
   }
   readings.newer = {takenUs, std::move(*figures)};
}

/// Whether the next reading is not overdue yet: half an interval is left for late ones.
template <class Figures>
bool VmHistory::IsCurrent(const Readings<Figures>& readings, int64_t nowUs) const
{
   return readings.newer && nowUs - readings.newer->takenUs <= _intervalUs + _intervalUs / 2;
}

void VmHistory::Add(VmRecord record, const std::string& noMonitor)
{
   const std::lock_guard guard(_mutex);
   _answeredUs = std::max(_answeredUs.value_or(record.takenUs), record.takenUs);
   _silence.clear();
   const auto [place, isNew] = _vms.try_emplace(record.id);
   Vm& vm = place->second;
   if (isNew || vm.startId != record.startId) {
      vm = Vm();
      vm.knownSinceUs = record.takenUs;
      vm.startId = record.startId;
   }
   AddReading(vm.basics, record.takenUs, record.basics);
   AddReading(vm.vcpus, record.takenUs, record.vcpus);
   if (record.monitor || !noMonitor.empty()) {
      vm.noMonitor = noMonitor;
   }
   AddReading(vm.monitor, record.takenUs, record.monitor);
}

void VmHistory::SetSilent(const std::string& reason)
{
   const std::lock_guard guard(_mutex);
   _silence = reason;
}

void VmHistory::KeepOnly(const std::set<std::string>& ids)
{
   const int64_t nowUs = Corvax::System::GetMonotonicTime();
   const std::lock_guard guard(_mutex);
   std::erase_if(_vms, [&](const auto& entry) {
      return !ids.contains(entry.first) && !IsCurrent(entry.second.basics, nowUs);
   });
}

void VmHistory::BeginCollection()
{
   const int64_t nowUs = Corvax::System::GetMonotonicTime();
   const int64_t sinceStampUs = Corvax::System::GetTime() % kMicrosecondsPerSecond;
   const int64_t timeUs = nowUs - sinceStampUs - _intervalUs * 3 / 4;
   const std::lock_guard guard(_mutex);
   _snapshot = nullptr;
   if (!_answeredUs || nowUs - *_answeredUs > _intervalUs + _intervalUs / 2) {
      return;
   }
   auto snapshot = std::make_shared<VmSnapshot>();
   for (const auto& [id, vm] : _vms) {
      if (auto figures = MakeFigures(vm, timeUs, nowUs)) {
         snapshot->vms.emplace_hint(snapshot->vms.end(), id, std::move(*figures));
      }
   }
   _snapshot = std::move(snapshot);
}

std::optional<VmFigures> VmHistory::MakeFigures(const Vm& vm, int64_t timeUs, int64_t nowUs) const
{
   const auto basicsPosition = FindPosition(vm.basics, timeUs);
   if (!basicsPosition) {
      return std::nullopt;
   }
   const VmBasics& older = vm.basics.older->figures;
   const VmBasics& newer = vm.basics.newer->figures;
   if (newer.usedUs < older.usedUs) {
      return std::nullopt;
   }
   VmFigures figures;
   figures.startId = vm.startId;
   figures.usedUs = basicsPosition->Between(older.usedUs, newer.usedUs);
   figures.cards = InterpolateNamed(older.cards, newer.cards, &VmCardFigures::tap, kCardCounters,
                                    *basicsPosition);
   if (const auto position = FindPosition(vm.vcpus, timeUs)) {
      figures.vcpus = InterpolateVcpus(vm.vcpus.older->figures, vm.vcpus.newer->figures, *position);
   }
   if (const auto position = FindPosition(vm.monitor, timeUs)) {
      figures.disks =
         InterpolateNamed(vm.monitor.older->figures.disks, vm.monitor.newer->figures.disks,
                          &VmDiskFigures::target, kDiskCounters, *position);
   }
   if (IsCurrent(vm.monitor, nowUs)) {
      figures.memory = vm.monitor.newer->figures.memory;
   }
   return figures;
}

std::shared_ptr<const VmSnapshot> VmHistory::GetSnapshot() const
{
   const std::lock_guard guard(_mutex);
   return _snapshot;
}

Freshness VmHistory::GetFreshness(const std::string& id) const
{
   const int64_t nowUs = Corvax::System::GetMonotonicTime();
   const std::lock_guard guard(_mutex);
   const auto found = _vms.find(id);
   if (found == _vms.end()) {
      const bool isSilent = !_silence.empty();
      return {Freshness::State::STALE, 0,
              isSilent ? _silence : "the hypervisor has not reported it yet"};
   }
   const Vm& vm = found->second;
   if (!IsCurrent(vm.basics, nowUs)) {
      const int64_t sinceUs = vm.basics.newer ? vm.basics.newer->takenUs : vm.knownSinceUs;
      return {Freshness::State::STALE, ToWallSec(sinceUs),
              _silence.empty() ? "the hypervisor does not report it" : _silence};
   }
   if (!IsCurrent(vm.monitor, nowUs)) {
      const int64_t sinceUs = vm.monitor.newer ? vm.monitor.newer->takenUs : vm.knownSinceUs;
      return {Freshness::State::PARTLY, ToWallSec(sinceUs),
              vm.noMonitor.empty() ? "its monitor has not answered" : vm.noMonitor};
   }
   return {Freshness::State::FRESH, ToWallSec(std::max(vm.basics.sinceUs, vm.monitor.sinceUs)), ""};
}

} // namespace LinuxHost
