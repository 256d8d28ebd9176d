#pragma once

#include "agentctl/api.h"
#include "agentctl/output.h"

namespace Agentctl {

/// Commands that list something once. They throw NotFoundException if there is nothing to list, and
/// what Api and Output throw.
void ListEntities(Api& api, Output& output);
void ListCounters(Api& api, const std::string& group, Output& output);
void ListIntervals(Api& api, Output& output);
void ListMetrics(Api& api, const std::string& entityId, Output& output);
/// An empty `vmId` means the host.
void ShowUsage(Api& api, const std::string& vmId, Output& output);

} // namespace Agentctl
