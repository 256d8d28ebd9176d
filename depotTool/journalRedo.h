#pragma once

#include "depotTool/description.h"
#include "depotTool/mending.h"

#include <vector>

namespace DepotTool {

/// Writes what only the journal has into stores and id map, which can be used, and removes the
/// journal: the depot is then as after a checkpoint. A journal that a depot would not use is
/// renamed to NAME.journal.N.aside. False if this program cannot read the journal, which then
/// stays.
bool RedoJournal(const Mending& mending, const std::vector<IntervalEntry>& intervals);

} // namespace DepotTool
