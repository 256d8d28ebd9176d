#pragma once

#include "bench/workload.h"

namespace Bench {

/// Makes a depot with a sample of every stat in every column of both intervals, the newest column
/// at or just before `newest`. Collecting that much takes a day and a half, so the stores are
/// written directly, in the format of docs/formats/store.md.
void MakeFilledDepot(const std::string& directory, const StatPlan& plan, Metrix::TimeStamp newest);

} // namespace Bench
