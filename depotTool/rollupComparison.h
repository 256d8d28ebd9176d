#pragma once

#include "depotTool/depotImage.h"

namespace DepotTool {

/// Compares coarse samples with the rollups of the fine ones, as far as the fine interval has all
/// columns of their period and a sample there. Replaces those that differ if `recompute` is set.
void CompareRollups(const Mending& mending, const DepotImage& depot, bool recompute);

} // namespace DepotTool
