#include "simHost/simModel.h"

#include <algorithm>
#include <array>

namespace SimHost {

namespace {

constexpr uint64_t kFigureStep = 0xD1B54A32D192ED03; // odd, so that all figures differ
constexpr uint64_t kTimeStep = 0x8CB92BA72F3D8DD7;

struct Range {
   Figure figure;
   uint64_t min;
   uint64_t max;
};

// A counter grows by less than twice its rate per second. Hence a host CPU's busy time and the sum
// of a virtual CPU's times grow by less than a second per second. The low 32 bits of a port's byte
// counts wrap within minutes at the upper end of their range.
constexpr auto kRanges = std::to_array<Range>({
   {Figure::HOST_CPU_USED_US, 50000, 490000},
   {Figure::GROUP_CPU_USED_US, 1000, 2000000},
   {Figure::VCPU_USED_US, 5000, 300000},
   {Figure::VCPU_SYSTEM_US, 100, 5000},
   {Figure::VCPU_WAIT_US, 10000, 140000},
   {Figure::VCPU_READY_US, 100, 30000},
   {Figure::VCPU_EXTRA_US, 10, 1000},
   {Figure::HEARTBEATS, 1, 3},
   {Figure::SWAP_IN_KB, 1, 40},
   {Figure::SWAP_OUT_KB, 1, 60},
   {Figure::BLOCKS_READ, 10, 100000},
   {Figure::BLOCKS_WRITTEN, 10, 60000},
   {Figure::READ_OPERATIONS, 1, 2000},
   {Figure::WRITE_OPERATIONS, 1, 1500},
   {Figure::ABORTS_PER_HOUR, 1, 90},
   {Figure::RESETS_PER_DAY, 1, 400},
   {Figure::BYTES_RECEIVED, 200, 40000000},
   {Figure::BYTES_SENT, 200, 25000000},
   {Figure::PACKETS_RECEIVED, 1, 30000},
   {Figure::PACKETS_SENT, 1, 20000},
   {Figure::RESERVED_CPU_MHZ, 200, 4000},
   {Figure::RESERVED_MEMORY_MB, 100, 9000},
   {Figure::GUARANTEED_MS, 0, 1000},
   {Figure::SHORTAGE, 0, 3},
   {Figure::LOAD_ACTIVE, 0, 180},
   {Figure::LOAD_WAITING, 0, 60},
   {Figure::LOAD_PEAK, 0, 90},
   {Figure::LOAD_LIMITED, 0, 25},
   {Figure::LOAD_SAMPLES, 1, 160},
   {Figure::OVERHEAD_KB, 20000, 90000},
   {Figure::FREE, 50, 400},
   {Figure::GRANTED, 550, 950},
   {Figure::ACTIVE, 30, 700},
   {Figure::SHARED, 10, 250},
   {Figure::ZERO, 50, 600},
   {Figure::SAVED, 200, 900},
   {Figure::SWAPPED, 0, 400},
   {Figure::BALLOON, 0, 500},
   {Figure::HEAP, 5, 30},
   {Figure::HEAP_FREE, 100, 700},
   {Figure::UNRESERVED, 100, 600},
   {Figure::SYSTEM_USAGE, 20, 60},
   {Figure::MEMORY_SIZE, 0, 5},
   {Figure::START_DELAY_SEC, 0, 9999},
   {Figure::FIRST_DISK, 0, 999999},
   {Figure::SECOND_DISK, 0, 999999},
   {Figure::LATE_PERCENT, 0, 99},
   {Figure::LATENESS_STEP, 0, 5},
});

constexpr bool IsInOrder()
{
   for (size_t i = 0; i < kRanges.size(); ++i) {
      if (static_cast<size_t>(kRanges[i].figure) != i || kRanges[i].min > kRanges[i].max) {
         return false;
      }
   }
   return kRanges.size() == static_cast<size_t>(Figure::COUNT);
}
static_assert(IsInOrder(), "one row per figure, in the order of the enumeration");

const Range& RangeOf(Figure figure)
{
   return kRanges[static_cast<size_t>(figure)];
}

uint64_t Choose(const Range& range, uint64_t mixed)
{
   return range.min + Below(range.max - range.min + 1, mixed);
}

uint64_t Bits(EntityKey key, Figure figure)
{
   return key.hash + (static_cast<uint64_t>(figure) + 1) * kFigureStep;
}

} // namespace

// Xor-shift and multiplication, each of them reversible: different arguments have different
// results.
uint64_t Mix(uint64_t bits)
{
   bits = (bits ^ (bits >> 32)) * 0xD6E8FEB86659FD93;
   bits = (bits ^ (bits >> 29)) * 0xA0761D6478BD642F;
   return bits ^ (bits >> 32);
}

EntityKey EntityKey::Part(uint64_t index) const
{
   return {Mix(hash ^ (index + 1) * kTimeStep)};
}

EntityKey MakeKey(uint64_t seed, std::string_view id)
{
   uint64_t hash = Mix(seed + 1);
   for (const char c : id) {
      hash = Mix(hash ^ static_cast<unsigned char>(c));
   }
   return {hash};
}

uint64_t Gauge(EntityKey key, Figure figure, int64_t timeSec)
{
   const uint64_t bits = Bits(key, figure) + static_cast<uint64_t>(timeSec) * kTimeStep;
   return Choose(RangeOf(figure), Mix(bits));
}

uint64_t Counter(EntityKey key, Figure figure, const Moment& moment)
{
   const uint64_t mixed = Mix(Bits(key, figure));
   const uint64_t ratePerSec = Choose(RangeOf(figure), mixed);
   const uint64_t sinceStartSec = GetUptimeSec(moment);
   if (sinceStartSec == 0) {
      return 0;
   }
   // The noise is below the rate, so that the count grows even from the highest noise to the
   // lowest.
   return ratePerSec * sinceStartSec + Below(ratePerSec, Mix(mixed + sinceStartSec * kTimeStep));
}

uint64_t GetUptimeSec(const Moment& moment)
{
   return static_cast<uint64_t>(std::max(moment.timeSec, moment.startSec) - moment.startSec);
}

} // namespace SimHost
