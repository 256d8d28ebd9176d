#pragma once

#include "agentctl/api.h"
#include "agentctl/options.h"
#include "agentctl/output.h"
#include "agentctl/pace.h"

namespace Agentctl {

/// Answers `query`, and with --watch goes on with rows newer than those shown, until `wait` says
/// that there is nothing more to wait for. Without data, and not watching: NotFoundException.
void RunQuery(Api& api, const Options& options, Output& output, const WaitFunction& wait);

} // namespace Agentctl
