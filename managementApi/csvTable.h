#pragma once

#include "managementApi/requestText.h"

#include <string>

namespace ManagementApi {

/// Results of a query as one table: a header line, then a line a time stamp, oldest first, with a
/// column a metric; unset values are empty cells. Where there are several results, columns are
/// named "ENTITY/metric". All results are in normal form.
std::string
FormatCsvTable(const Plexa::DataArray<Quen::PerformanceManager::EntityMetricBase>& results,
               const Counters& counters);

} // namespace ManagementApi
