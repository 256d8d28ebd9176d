#pragma once

#include "depotTool/mending.h"
#include "depotTool/statTable.h"
#include "depotTool/storeImage.h"

#include <memory>
#include <string>
#include <vector>

namespace DepotTool {

struct IntervalImage {
   std::string name;
   int32_t periodSec;
   std::unique_ptr<StoreImage> store;
};

/// A depot's files, read without the depot. Opening mends description, stores and id map, and lays
/// the journal down; otherwise the rows stay as they are.
class DepotImage {
public:
   /// Exception if there is no depot, or neither its description nor a store can be used.
   explicit DepotImage(const Mending& mending);

   const std::vector<IntervalImage>& GetIntervals() const { return _intervals; } ///< finest first
   const StatTable& GetStats() const { return _stats; }
   /// False if newer samples are in a journal that this program cannot read.
   bool IsComplete() const { return _isComplete; }

   /// Frees rows of no stat, mends the stamps and flags of the others, and adds missing rollups.
   void MendRows(const Mending& mending);

private:
   void MendRowsOf(const Mending& mending, const IntervalImage& interval);
   void NoteStatsWithoutRows(const Mending& mending) const;
   void NoteLeftovers(const Mending& mending) const;

   std::vector<IntervalImage> _intervals;
   StatTable _stats;
   bool _isComplete = true;
   std::vector<bool> _hasRow; ///< by id, after MendRowsOf
};

} // namespace DepotTool
