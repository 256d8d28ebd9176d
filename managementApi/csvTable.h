#pragma once

#include "managementApi/requestText.h"

#include <string>

namespace ManagementApi {

/// Results of a query, all in normal form, as one table: a header line, then one line per time
/// stamp, oldest first, with one column per metric. Unset values are empty cells. With several
/// results, columns are named "ENTITY/metric".
std::string
FormatCsvTable(const Plexa::DataArray<Quen::PerformanceManager::EntityMetricBase>& results,
               const Counters& counters);

} // namespace ManagementApi
