#pragma once

#include "hostctl/host.h"
#include "simHost/simState.h"

namespace SimHost {

/// The kernel library's host object, with figures of the state's time. It and all objects that it
/// returns must not outlive the state.
HostCtl::Host* NewHost(const SimState& state);

/// The port of a VM's NIC; null for an unknown id. Reading the port of a failing VM throws
/// HostCtlException.
HostCtl::Network::Port* NewCardPort(const SimState& state, uint32_t portId);

} // namespace SimHost
