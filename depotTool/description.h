#pragma once

#include "depotTool/mending.h"

#include <cstdint>
#include <string>
#include <vector>

namespace DepotTool {

/// An interval as the description has it.
struct IntervalEntry {
   std::string name;
   std::string storePath;
   int32_t periodSec = 0;
   int32_t numSamples = 0;

   bool operator==(const IntervalEntry&) const = default;
};

/// Exception, with the reason, if the description cannot be used. Accepts any paths of stores.
std::vector<IntervalEntry> ReadDescription(const DepotPaths& files);

/// Describes the intervals with the store paths of `home`. A reader sees the old description or the
/// new one.
void WriteDescription(const DepotPaths& files, const DepotPaths& home,
                      const std::vector<IntervalEntry>& intervals);

/// Throws InvalidArgumentException with the reason unless a depot accepts these intervals.
void CheckIntervals(const std::vector<IntervalEntry>& intervals);

/// The described intervals; those of the stores that are there if the description cannot be used.
/// FileFormatException if neither says anything. Writes nothing.
std::vector<IntervalEntry> ExamineDescription(const Mending& mending);

} // namespace DepotTool
