#pragma once

#include "agentctl/api.h"
#include "agentctl/output.h"
#include "agentctl/pace.h"

namespace Agentctl {

/// Prints the table so many times, one an interval. Corvax::Exception at the first failure.
void PrintTop(Api& api, int64_t count, Output& output, const WaitFunction& wait);

/// Shows the table on the full screen until q is pressed. A failure at the start is thrown; later
/// ones are shown above the last figures, and asking goes on.
void ShowTop(Api& api, const std::string& server, Output& output);

} // namespace Agentctl
