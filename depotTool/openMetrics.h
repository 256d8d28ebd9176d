#pragma once

#include "depotTool/depotImage.h"
#include "depotTool/textOutput.h"

#include <string>

namespace DepotTool {

/// Writes the samples of one interval, the finest if the name is empty, as OpenMetrics text: a
/// gauge `metrix_GROUP_NAME` per stat name with the labels entity, instance and, for rollups,
/// rollup. InvalidArgumentException if the depot has no such interval.
void ExportOpenMetrics(const DepotImage& depot, const std::string& intervalName,
                       TextOutput& output);

} // namespace DepotTool
