#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace SimHost {

/// The figures of the model. simModel.cpp has a range for each: of a gauge's value, or of a
/// counter's growth per second.
enum class Figure : uint32_t {
   // Counters.
   HOST_CPU_USED_US,
   GROUP_CPU_USED_US,
   VCPU_USED_US,
   VCPU_SYSTEM_US,
   VCPU_WAIT_US,
   VCPU_READY_US,
   VCPU_EXTRA_US,
   HEARTBEATS,
   SWAP_IN_KB,
   SWAP_OUT_KB,
   BLOCKS_READ,
   BLOCKS_WRITTEN,
   READ_OPERATIONS,
   WRITE_OPERATIONS,
   ABORTS_PER_HOUR,
   RESETS_PER_DAY,
   BYTES_RECEIVED,
   BYTES_SENT,
   PACKETS_RECEIVED,
   PACKETS_SENT,
   // Gauges.
   RESERVED_CPU_MHZ,
   RESERVED_MEMORY_MB,
   GUARANTEED_MS,
   SHORTAGE,
   LOAD_ACTIVE,
   LOAD_WAITING,
   LOAD_PEAK,
   LOAD_LIMITED,
   LOAD_SAMPLES,
   OVERHEAD_KB,
   // Gauges in thousandths of another figure.
   FREE,
   GRANTED,
   ACTIVE,
   SHARED,
   ZERO,
   SAVED,
   SWAPPED,
   BALLOON,
   HEAP,
   HEAP_FREE,
   UNRESERVED,
   SYSTEM_USAGE,
   // Gauges read at one time only: fixed properties of an entity.
   MEMORY_SIZE,
   START_DELAY_SEC,
   FIRST_DISK,
   SECOND_DISK,
   // Gauges of the host: whether the virtual machines' readings are late, and by how much.
   LATE_PERCENT,
   LATENESS_STEP,
   COUNT
};

/// When the simulated host started: 2025-01-01. Seconds since the epoch.
constexpr int64_t kHostStartSec = 1735689600;

/// An entity, or a part of one, to the model. It is computed once, so that a figure costs
/// nanoseconds.
struct EntityKey {
   uint64_t hash = 0;

   /// The entity's CPU, NIC or disk with that index.
   EntityKey Part(uint64_t index) const;
};

EntityKey MakeKey(uint64_t seed, std::string_view id);

/// 64 bits, each of which depends on every bit of the argument.
uint64_t Mix(uint64_t bits);

/// A number below `limit`, from 64 mixed bits; `limit` is at most 2^32.
constexpr uint64_t Below(uint64_t limit, uint64_t mixed)
{
   return ((mixed >> 32) * limit) >> 32;
}

/// A value anywhere in the figure's range.
uint64_t Gauge(EntityKey key, Figure figure, int64_t timeSec);

/// A second, and the one in which the counters that are read in it began.
struct Moment {
   int64_t timeSec = 0;
   int64_t startSec = kHostStartSec;
};

/// Seconds since the counters began, 0 before that.
uint64_t GetUptimeSec(const Moment& moment);

/// A count since the moment's start, 0 until then. It grows every second, by less than twice the
/// upper end of the figure's range, and does not overflow before 2100.
uint64_t Counter(EntityKey key, Figure figure, const Moment& moment);

} // namespace SimHost
