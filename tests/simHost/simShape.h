#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

/// The parts that an entity has and has had since it started, kept as a record of who came and went
/// when; what follows from that is worked out from the record alone.
struct SimShape {
   enum Kind { VCPUS, CARDS, DISKS, KINDS };
   static constexpr int64_t kStays = std::numeric_limits<int64_t>::max();

   struct Part {
      Kind kind;
      uint64_t index;
      int64_t fromSec;
      int64_t untilSec = kStays;
   };
   /// So many virtual CPUs from that second on.
   struct Step {
      int64_t timeSec;
      uint64_t vcpus;
   };

   int64_t startSec = 0;
   bool isHung = false;
   bool isFailing = false;
   std::vector<Part> parts;
   std::vector<Step> steps;                 ///< at least one
   std::array<uint64_t, KINDS> mostOf = {}; ///< that there ever were, restarts included

   uint64_t CountOf(Kind kind) const
   {
      return static_cast<uint64_t>(std::ranges::count_if(
         parts, [=](const Part& part) { return part.kind == kind && part.untilSec == kStays; }));
   }

   /// The start of a part that is there.
   std::optional<int64_t> FindStart(Kind kind, uint64_t index) const
   {
      for (const Part& part : parts) {
         if (part.kind == kind && part.index == index && part.untilSec == kStays) {
            return part.fromSec;
         }
      }
      return std::nullopt;
   }

   void SetCount(Kind kind, uint64_t count, int64_t timeSec)
   {
      for (Part& part : parts) {
         if (part.kind == kind && part.index >= count && part.untilSec == kStays) {
            part.untilSec = timeSec;
         }
      }
      for (uint64_t index = CountOf(kind); index < count; ++index) {
         parts.push_back({kind, index, timeSec});
      }
      if (kind == VCPUS) {
         steps.push_back({timeSec, count});
      }
      mostOf[kind] = std::max(mostOf[kind], count);
   }

   void Restart(int64_t timeSec)
   {
      const std::array<uint64_t, KINDS> counts = {CountOf(VCPUS), CountOf(CARDS), CountOf(DISKS)};
      startSec = timeSec;
      parts.clear();
      steps.clear();
      for (const Kind kind : {VCPUS, CARDS, DISKS}) {
         SetCount(kind, counts[kind], timeSec);
      }
   }
};
