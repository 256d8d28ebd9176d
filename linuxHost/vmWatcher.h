#pragma once

#include "corvax/logger.h"
#include "linuxHost/hypervisorCaller.h"
#include "linuxHost/linuxVms.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace LinuxHost {

/// Keeps LinuxVms up to date through one connection to the hypervisor, on its own thread.
///
/// An event only marks a virtual machine as changed: its description is then read, so that the
/// order and number of events do not matter. Not every change has an event, and a hypervisor that
/// has just started may list a machine as running that died meanwhile: so each machine is described
/// anew every five minutes, one after the other, and at once when two polls in a row contradict its
/// power state. When the connection is lost, all descriptions are read again through another one.
/// A machine that cannot be described stays as it was; that is logged once.
///
/// The first of consecutive failures is logged as a warning, the others at debug level. Locking:
/// its own, a leaf.
class VmWatcher {
public:
   /// `vms` outlives it.
   VmWatcher(std::shared_ptr<HypervisorGate> gate, LinuxVms& vms, Corvax::Logger* logger);
   ~VmWatcher();
   VmWatcher(const VmWatcher&) = delete;
   VmWatcher& operator=(const VmWatcher&) = delete;

   void Start();
   /// False when something still hangs after half a second: a call, whose thread lives on, or this
   /// watcher's own thread, which then must not lose the watcher or its machines.
   bool Stop();

   /// The machines that run, by a poll.
   void OnPolled(const std::set<std::string>& running);

private:
   struct Shared;
   class Listener;
   struct Listing {
      std::vector<VmDescription> descriptions;
      std::set<std::string> gone;
      std::map<std::string, std::string> failures; // why machines could not be described
   };

   void Run(const std::stop_token& stop);
   bool Connect(const std::stop_token& stop);
   void Follow(const std::stop_token& stop);
   bool Describe(const std::stop_token& stop, const std::set<std::string>& ids);
   bool Call(const std::stop_token& stop, const HypervisorCaller::Call& call);
   void DropConnection();
   std::set<std::string> FindContradictions(const std::set<std::string>& running);
   int64_t GetNextRoundUs() const;
   void AddDue(std::set<std::string>& ids);
   void NoteFailures(const Listing& listing);
   void LogFailure(const std::string& text);

   const std::shared_ptr<HypervisorGate> _gate;
   LinuxVms& _vms;
   const Corvax::Ref<Corvax::Logger> _logger;
   const std::shared_ptr<Shared> _shared; // with connections, also those that hang
   // Used by the thread only, and by Stop after its end.
   std::shared_ptr<HypervisorCaller> _caller;
   std::vector<std::shared_ptr<HypervisorCaller>> _dropped;
   std::set<std::string> _known;          // the machines that the hypervisor has
   std::deque<std::string> _round;        // those still to be described anew, in this order
   int64_t _lastRoundUs = 0;              // monotonic time of the last of these
   std::set<std::string> _contradictions; // of the last poll
   std::set<std::string> _undescribed;    // as logged
   bool _isFailureLogged = false;
   std::jthread _thread;
};

} // namespace LinuxHost
