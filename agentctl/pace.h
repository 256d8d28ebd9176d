#pragma once

#include "corvax/dateTime.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace Agentctl {

/// Waits for this many seconds; false if the caller should stop instead of continuing.
using WaitFunction = std::function<bool(int64_t seconds)>;

/// Seconds until the next request. New samples are due one interval after the newest known one, and
/// written at most a second later. If none arrived by then (the agent does not collect, or its
/// clock differs), a quarter of the interval.
int64_t GetSecondsToNext(std::optional<Corvax::DateTime> newest, int64_t intervalSec);

} // namespace Agentctl
