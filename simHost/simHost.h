#pragma once

#include "corvax/logger.h"
#include "hostctl/host.h"
#include "inventory/inventory.h"
#include "simHost/simEvents.h"
#include "simHost/simOptions.h"
#include "simHost/simState.h"
#include "simHost/simVm.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace SimHost {

/// A simulated host: the provider for the kernel library, and in the agent's object registry the
/// resource manager, the host, the virtual-machine service, machines "vm-0001"... and resource
/// pools "ha-root-pool", "pool-01"... for as long as it lives. Every fifth pool lies below the
/// first one of its five, all others below the root.
///
/// A pass begins when GetHost is called; all figures until the next one are of the second in which
/// that was, so that they all belong to one time stamp. They are pure functions of seed, entity and
/// time (simFigures.h), whatever happens meanwhile: no machine's counts begin anew.
///
/// Needs the application object for its whole life.
/// Ownership: takes a reference on the logger. Who installs it as the provider takes it out again.
/// Locking: its own, held while an action is applied; the inventory's and a machine's locks are
/// taken under it. Reading figures takes none.
class SimHost : public HostCtl::HostProvider {
public:
   /// Errors: those of LoadScript; InvalidArgumentException when one of its ids is registered
   /// already. Nothing stays registered then.
   SimHost(SimOptions options, Corvax::Logger* logger);
   ~SimHost() override;
   SimHost(const SimHost&) = delete;
   SimHost& operator=(const SimHost&) = delete;

   HostCtl::Host* GetHost() override;
   HostCtl::Network::Port* GetPort(uint32_t portId) override;

   /// The events of the options begin and end.
   void Start() { _events->Start(); }
   void Stop() { _events->Stop(); }

   /// Makes one thing happen, now. False when that changed nothing: an id of no such machine or
   /// pool, or one that is in that state already. Machines of a pool that is destroyed move to the
   /// root pool; the pools below it go with it.
   bool Apply(SimAction action, const std::string& id);

private:
   /// An object in the registry for the length of a scope.
   class Registration {
   public:
      Registration(std::string id, const Corvax::Ref<Corvax::Object>& object);
      ~Registration();
      Registration(const Registration&) = delete;
      Registration& operator=(const Registration&) = delete;

   private:
      const std::string _id;
   };

   bool ApplyToVm(SimAction action, SimVm& vm);
   bool SetPower(SimVm& vm, Quen::Vm::PowerState state, bool isFromOnAlone);
   bool RegisterVm(SimVm& vm);
   bool CreatePool(const std::string& id);
   bool DestroyPool(const std::string& id);

   const Corvax::Ref<SimState> _state;
   std::mutex _mutex;
   Inventory::Inventory _inventory;
   Corvax::RefVector<SimVm> _vms; ///< by index, registered or not
   const Registration _resourceMgr;
   const Registration _hostSystem;
   const Corvax::Ref<SimEvents> _events;
};

} // namespace SimHost
