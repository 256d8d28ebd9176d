#pragma once

#include "simHost/simState.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace SimHost {

/// The events of a simulated host. simActions.cpp has their names ("off-vm").
enum class SimAction {
   ON_VM, ///< one that was off starts: it counts from zero
   OFF_VM,
   SUSPEND_VM,
   UNREGISTER_VM,
   REGISTER_VM, ///< one that was unregistered; it starts
   DESTROY_POOL,
   CREATE_POOL, ///< one that was destroyed
   STUCK_VM,    ///< cannot be sampled, as if it did not answer at all
   UNSTUCK_VM,
   FAILING_VM, ///< has no memory figures, and its ports cannot be read
   WORKING_VM,
   HANG_VM, ///< has no figures that only its monitor knows: memory and disks
   UNHANG_VM,
   // Events with a number: so many of these there are from then on.
   VCPUS_VM,
   CARDS_VM,
   DISKS_VM, ///< images on the disks of the host
   DISKS_HOST,
   NICS_HOST,
};

/// Empty for an unknown name.
std::optional<SimAction> FindAction(std::string_view name);
std::string_view GetActionName(SimAction action);

/// The numbers that an event with a number may have, and the one at the start.
struct CountRange {
   uint64_t min;
   uint64_t max;
   uint64_t atStart;
};
CountRange GetCountRange(const SimOptions& options, SimAction action);

struct SimEvent {
   int64_t timeUs; ///< since the start of the events
   SimAction action;
   std::string id;     ///< of the virtual machine, pool or host
   uint64_t count = 0; ///< of an event with a number
};

/// Reads lines "SECONDS ACTION ID" or "SECONDS ACTION ID NUMBER" and sorts them by time; "#" begins
/// a comment, and empty lines are ignored. InvalidArgumentException with file and line for a
/// malformed line, an unknown action, an id that no VM or pool of the host ever has or a number out
/// of its range; PlatformException for a file that cannot be read.
std::vector<SimEvent> LoadScript(const std::string& path, const SimState& state);

/// Whether the options ask for random events and there is a VM or pool to have them.
bool HasRandomEvents(const SimOptions& options);

/// The random event of a number, counted from 0: a pure function of options and number. Events come
/// at the options' rate, and each disruption is undone a few events later.
SimEvent GetRandomEvent(const SimOptions& options, uint64_t number);

} // namespace SimHost
