#pragma once

#include "hostctl/resource.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace LinuxHost {

/// The load of a group over the last minutes, computed from its cumulative times: the kernel keeps
/// no averages of groups, and no peaks at all. Add is to be called every kSamplePeriodUs.
///
/// Units: percent of one core, rounded down. An average is the time of all samples of its period
/// over their length, so that a long sample counts for more than a short one.
/// Locking: none; one thread at a time.
class LoadHistory {
public:
   static constexpr int64_t kSamplePeriodUs = 6'000'000;
   static constexpr size_t kMaxSamples = 150; ///< fifteen minutes

   /// `timeUs` is monotonic. Adds a sample of the time since the previous reading, except for the
   /// first reading, after more than two periods without one, and when a waiting or limited time
   /// has decreased. A reading less than half a period after the previous one is dropped: over so
   /// short a time a delay of the reader passes for load. When the active time has decreased or the
   /// time went back, the subject is another one, and the history begins anew.
   void Add(int64_t timeUs, uint64_t activeUs, uint64_t waitingUs, uint64_t limitedUs);

   /// Whether there is no sample of the last fifteen minutes.
   bool IsEmpty() const;

   /// Whether the newest reading is so old that the next one makes no sample.
   bool IsStale(int64_t nowUs) const;

   /// Of the last 1, 5 and 15 minutes before the newest reading; 0 without a sample.
   HostCtl::Resource::CpuLoadHistory Get() const;

private:
   /// A time of the group: a cumulative one in a reading, its growth in a sample.
   struct Times {
      uint64_t activeUs = 0;
      uint64_t waitingUs = 0;
      uint64_t limitedUs = 0;
   };
   struct Reading {
      int64_t timeUs = 0;
      Times times;
   };
   struct Sample {
      int64_t timeUs = 0; // its end
      int64_t lengthUs = 0;
      Times times;
   };

   static std::optional<Sample> MakeSample(const Reading& from, const Reading& to);
   void Append(const Sample& sample);
   bool IsWithin(const Sample& sample, int64_t periodUs) const;
   HostCtl::Resource::CpuLoad LoadOver(int64_t periodUs) const;
   uint32_t CountSamples() const;

   std::optional<Reading> _newest;
   std::vector<Sample> _samples; // a ring once it is full
   size_t _oldest = 0;           // index that the next sample overwrites then
};

} // namespace LinuxHost
