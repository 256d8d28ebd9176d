#pragma once

#include "depotTool/description.h"
#include "depotTool/mending.h"
#include "depotTool/storeImage.h"

#include <memory>

namespace DepotTool {

/// Mends header, size and columns of an interval's store and opens it. A store that cannot be used
/// is set aside and created empty. Where the store is sound and has another number of columns than
/// the interval, the interval gets the store's.
std::unique_ptr<StoreImage> MendStore(const Mending& mending, IntervalEntry& interval);

} // namespace DepotTool
