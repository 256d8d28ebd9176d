#pragma once

#include "agentctl/api.h"
#include "agentctl/options.h"
#include "agentctl/output.h"
#include "agentctl/pace.h"

namespace Agentctl {

/// Prints the samples of an entity; with --watch it continues with newer ones until `wait` returns
/// false. NotFoundException if there is no data and it is not a watch.
void RunQuery(Api& api, const Options& options, Output& output, const WaitFunction& wait);

} // namespace Agentctl
