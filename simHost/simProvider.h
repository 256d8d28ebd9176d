#pragma once

#include "hostctl/host.h"
#include "simHost/simState.h"

namespace SimHost {

/// The host's side of the kernel library, over figures of the pass under way. What they hand out
/// must not outlive the state.
HostCtl::Host* NewHost(const SimState& state);

/// The port of a virtual machine's card; null when there is none. Reading the port of a failing
/// machine throws HostCtlException.
HostCtl::Network::Port* NewCardPort(const SimState& state, uint32_t portId);

} // namespace SimHost
