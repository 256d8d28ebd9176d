#pragma once

#include "simHost/simState.h"

#include <cstdint>
#include <string>
#include <vector>

namespace SimHost {

/// The events of a simulated host's VMs and pools. simActions.cpp has their names ("off-vm").
enum class SimAction {
   ON_VM,
   OFF_VM,
   SUSPEND_VM,
   UNREGISTER_VM,
   REGISTER_VM, ///< one that was unregistered; it is powered on
   DESTROY_POOL,
   CREATE_POOL, ///< one that was destroyed
   STUCK_VM,    ///< cannot be sampled, as if its monitor hung
   UNSTUCK_VM,
   FAILING_VM, ///< has no memory figures, and its ports cannot be read
   WORKING_VM,
};

struct SimEvent {
   int64_t timeUs; ///< since the start of the events
   SimAction action;
   std::string id; ///< of the virtual machine or pool
};

/// Reads lines "SECONDS ACTION ID" and sorts them by time; "#" begins a comment, and empty lines
/// are ignored. InvalidArgumentException with file and line for a malformed line, an unknown action
/// or an id that no VM or pool of the host ever has; PlatformException for a file that cannot be
/// read.
std::vector<SimEvent> LoadScript(const std::string& path, const SimState& state);

/// Whether the options ask for random events and there is a VM or pool to have them.
bool HasRandomEvents(const SimOptions& options);

/// The random event of a number, counted from 0: a pure function of options and number. Events come
/// at the options' rate, and each disruption is undone a few events later.
SimEvent GetRandomEvent(const SimOptions& options, uint64_t number);

} // namespace SimHost
