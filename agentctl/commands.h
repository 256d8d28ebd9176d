#pragma once

#include "agentctl/api.h"
#include "agentctl/options.h"
#include "agentctl/output.h"

namespace Agentctl {

/// The commands that list something once. Corvax::Exception where there is nothing to list, and
/// for all that Api and Output throw.
void ListEntities(Api& api, Output& output);
void ListCounters(Api& api, const std::string& group, Output& output);
void ListIntervals(Api& api, Output& output);
void ListMetrics(Api& api, const std::string& entityId, Output& output);
/// An empty `vmId` stands for the host.
void ShowUsage(Api& api, const std::string& vmId, Output& output);

} // namespace Agentctl
