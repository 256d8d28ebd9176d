#pragma once

#include "simHost/simState.h"

#include <cstdint>
#include <string>
#include <vector>

namespace SimHost {

/// What can happen to a simulated host's machines and pools, by the names of simActions.cpp
/// ("off-vm").
enum class SimAction {
   ON_VM,
   OFF_VM,
   SUSPEND_VM,
   UNREGISTER_VM,
   REGISTER_VM, ///< back, powered on
   DESTROY_POOL,
   CREATE_POOL, ///< back
   STUCK_VM,    ///< it cannot be sampled, as when its monitor hangs
   UNSTUCK_VM,
   FAILING_VM, ///< its ports cannot be read and it has no memory figures
   WORKING_VM,
};

struct SimEvent {
   int64_t timeUs; ///< since the start of the events
   SimAction action;
   std::string id; ///< of the virtual machine or pool
};

/// Reads lines "SECONDS ACTION ID", in the order of their times; "#" begins a comment and empty
/// lines count for nothing. InvalidArgumentException that names file and line for a line of another
/// form, an unknown action or an id that no machine or pool of the host ever has;
/// PlatformException for a file that cannot be read.
std::vector<SimEvent> LoadScript(const std::string& path, const SimState& state);

/// Whether the host can have random events at all.
bool HasRandomEvents(const SimOptions& options);

/// The random event of that number, counted from 0, a pure function of options and number: events
/// are as many a minute as the options say, and each that takes something away is followed by its
/// reverse a few events later.
SimEvent GetRandomEvent(const SimOptions& options, uint64_t number);

} // namespace SimHost
