#pragma once

#include "depotTool/options.h"

#include <ostream>

namespace DepotTool {

/// Runs the command and returns its exit status. Results go to `out`, remarks on them to `remarks`.
int RunCommand(const Options& options, std::ostream& out, std::ostream& remarks);

} // namespace DepotTool
