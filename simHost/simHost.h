#pragma once

#include "corvax/logger.h"
#include "hostctl/host.h"
#include "inventory/inventory.h"
#include "simHost/simEvents.h"
#include "simHost/simOptions.h"
#include "simHost/simState.h"
#include "simHost/simVm.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace SimHost {

/// A simulated host: a provider for the kernel library. As long as it lives, the agent's object
/// registry has its resource manager, its host object, its virtual-machine service, its VMs
/// ("vm-0001" and so on), its root pool "ha-root-pool" and its resource pools ("pool-01" and so
/// on). Every fifth pool is a child of the first of its five, all others are children of the root
/// pool.
///
/// GetHost, which a run calls first, sets the time of all figures to the current second, so that
/// all figures of a run have the same time. They are pure functions of seed, entity, time and of
/// the second in which the entity or its part started (simFigures.h).
///
/// What an event changes of the figures themselves, a run sees as a whole or not at all: such
/// changes wait for the next GetHost, which logs them as "Simulated change: TIME OF THE RUN, TIME
/// OF THE EVENT, ACTION, ID, NUMBER". Only power states, registration and pools change at once.
///
/// Needs the application object for its whole life.
/// Ownership: takes a reference on the logger. The installer must uninstall it as the provider.
/// Locking: its own, held while an action is applied; the inventory's lock is taken under it, and
/// so is that of the changes, a leaf. Reading figures takes none: one thread at a time may do it.
class SimHost : public HostCtl::HostProvider {
public:
   /// Errors: those of LoadScript; InvalidArgumentException if one of its ids is already
   /// registered. After an error nothing stays registered.
   SimHost(SimOptions options, Corvax::Logger* logger);
   ~SimHost() override;
   SimHost(const SimHost&) = delete;
   SimHost& operator=(const SimHost&) = delete;

   HostCtl::Host* GetHost() override;
   HostCtl::Network::Port* GetPort(uint32_t portId) override;

   /// Start and stop the events of the options.
   void Start() { _events->Start(); }
   void Stop() { _events->Stop(); }

   /// Applies an action now. Returns false if that changed nothing: the id is not that of a VM or
   /// pool, or the entity is already in that state. Destroying a pool also destroys its child
   /// pools; the VMs of all of them move to the root pool.
   bool Apply(SimAction action, const std::string& id, uint64_t count = 0);

private:
   /// Keeps an object in the registry for the length of a scope.
   class Registration {
   public:
      Registration(std::string id, const Corvax::Ref<Corvax::Object>& object);
      ~Registration();
      Registration(const Registration&) = delete;
      Registration& operator=(const Registration&) = delete;

   private:
      const std::string _id;
   };

   /// A change that waits for the next run.
   struct Change {
      int64_t timeSec;
      SimAction action;
      std::string id;
      uint64_t count;
   };

   bool ApplyToVm(SimAction action, SimVm& vm, uint64_t count);
   bool Plan(SimAction action, const std::string& id, uint64_t count);
   bool PlanFlag(SimAction flag, SimAction action, const SimVm& vm, bool isAtStart);
   void AddChange(SimAction action, const std::string& id, uint64_t count);
   void Make(const Change& change);
   bool SetPower(SimVm& vm, Quen::Vm::PowerState state, bool isOnlyFromOn);
   bool RegisterVm(SimVm& vm);
   bool CreatePool(const std::string& id);
   bool DestroyPool(const std::string& id);

   const Corvax::Ref<SimState> _state;
   const Corvax::Ref<Corvax::Logger> _logger;
   std::mutex _mutex;
   Inventory::Inventory _inventory;
   Corvax::RefVector<SimVm> _vms; ///< by index, registered or not
   /// The number that an action has set, or will with the next run; a flag is 0 or 1.
   std::map<std::pair<SimAction, std::string>, uint64_t> _planned;
   std::mutex _changesMutex;
   std::vector<Change> _changes;
   const Registration _resourceMgr;
   const Registration _hostSystem;
   const Corvax::Ref<SimEvents> _events;
};

} // namespace SimHost
