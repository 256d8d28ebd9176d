#pragma once

#include "bench/workload.h"

namespace Bench {

/// Makes a depot whose series are all full: every column of both intervals has a sample of every
/// stat, the newest ones at or just before `newest`. That would be a day and a half of collecting;
/// the stores are written as docs/formats/store.md has them instead.
void MakeFilledDepot(const std::string& directory, const StatPlan& plan, Metrix::TimeStamp newest);

} // namespace Bench
