#pragma once

#include "depotTool/depotImage.h"

#include <cstdint>
#include <string>
#include <vector>

namespace DepotTool {

/// Size, history and contents of a depot.
struct DepotInfo {
   struct Interval {
      std::string name;
      int32_t periodSec;
      uint32_t columns;
      uint64_t usedColumns;
      TimeStamp oldest; ///< unset if no column is in use
      TimeStamp newest;
      uint64_t bytes;     ///< of the store
      uint64_t fullBytes; ///< once each series has a row
   };

   std::vector<Interval> intervals;
   uint64_t entities = 0;
   uint64_t stats = 0;
   uint64_t series = 0;
   uint64_t journalBytes = 0;
   uint64_t bytes = 0; ///< of all files
   uint64_t fullBytes = 0;
};

/// `original` are the files of which `depot` may be a copy.
DepotInfo GetInfo(const DepotImage& depot, const DepotPaths& original);

std::string ToText(const DepotInfo& info, const DepotPaths& depot);
std::string ToJson(const DepotInfo& info);

} // namespace DepotTool
