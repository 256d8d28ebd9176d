#pragma once

#include "agentctl/api.h"
#include "agentctl/output.h"
#include "agentctl/pace.h"

namespace Agentctl {

/// Prints the table `count` times, once per interval, and ends early if `wait` returns false. The
/// first failure ends it, too.
void PrintTop(Api& api, int64_t count, Output& output, const WaitFunction& wait);

/// Shows the table on the full screen until q is pressed. A failure of the first request is thrown;
/// later ones are shown above the last figures, and the requests continue.
void ShowTop(Api& api, const std::string& server, Output& output);

} // namespace Agentctl
