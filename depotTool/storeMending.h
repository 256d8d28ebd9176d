#pragma once

#include "depotTool/description.h"
#include "depotTool/mending.h"
#include "depotTool/storeImage.h"

#include <memory>

namespace DepotTool {

/// Mends the header of an interval's store. A store that cannot be used is renamed to STORE.aside
/// and created empty. Where the store is sound and has another number of columns than the interval,
/// the interval gets the store's.
void MendStoreHeader(const Mending& mending, IntervalEntry& interval);

/// Mends end and columns of a store whose header is right, and opens it.
std::unique_ptr<StoreImage> OpenStore(const Mending& mending, const IntervalEntry& interval);

} // namespace DepotTool
