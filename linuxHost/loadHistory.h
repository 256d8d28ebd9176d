#pragma once

#include "hostctl/resource.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace LinuxHost {

/// The load of a group over the last minutes, made from readings of its cumulative times: the
/// kernel keeps no such averages for groups, and no peaks for anything. To be fed every
/// kSamplePeriodUs.
///
/// Units: percent of one core, cut to whole numbers.
/// Locking: none; one thread at a time.
class LoadHistory {
public:
   static constexpr int64_t kSamplePeriodUs = 6'000'000;
   static constexpr size_t kMaxSamples = 150; ///< fifteen minutes

   /// `timeUs` is of a clock that does not step. Makes a sample of the time since the reading
   /// before, except where that says nothing: for the first reading, after more than two periods
   /// without one, and when a counter went back, as at a restart.
   void Add(int64_t timeUs, uint64_t activeUs, uint64_t waitingUs, uint64_t limitedUs);

   /// Whether there is no sample of the last fifteen minutes.
   bool IsEmpty() const;

   /// Over the last 1, 5 and 15 minutes before the newest reading; 0 where there is no sample.
   HostCtl::Resource::CpuLoadHistory Get() const;

private:
   struct Reading {
      int64_t timeUs = 0;
      uint64_t activeUs = 0;
      uint64_t waitingUs = 0;
      uint64_t limitedUs = 0;
   };
   struct Sample {
      int64_t timeUs = 0; // its end
      uint32_t active = 0;
      uint32_t run = 0;
      uint32_t limited = 0;
   };

   static std::optional<Sample> MakeSample(const Reading& from, const Reading& to);
   void Append(const Sample& sample);
   bool IsWithin(const Sample& sample, int64_t periodUs) const;
   HostCtl::Resource::CpuLoad LoadOver(int64_t periodUs) const;
   uint32_t CountSamples() const;

   std::optional<Reading> _newest;
   std::vector<Sample> _samples; // a ring once it is full
   size_t _oldest = 0;           // place that the next sample takes then
};

} // namespace LinuxHost
