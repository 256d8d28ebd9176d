#pragma once

#include "corvax/logger.h"
#include "linuxHost/hypervisor.h"
#include "linuxHost/linuxVms.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace LinuxHost {

/// Keeps LinuxVms up to date through one connection to the hypervisor, on its own thread.
///
/// An event only marks a virtual machine as changed: its description is then read, so that the
/// order and number of events do not matter. When the connection is lost, the watcher reconnects,
/// backing off from one second to a minute, and reads all descriptions again, which yields the
/// changes that it missed. The first of consecutive failures is logged as a warning, the others at
/// debug level. Locking: its own, a leaf.
class VmWatcher : private HypervisorListener {
public:
   /// `vms` outlives it.
   VmWatcher(std::shared_ptr<Hypervisor> hypervisor, LinuxVms& vms, Corvax::Logger* logger);
   ~VmWatcher() override;
   VmWatcher(const VmWatcher&) = delete;
   VmWatcher& operator=(const VmWatcher&) = delete;

   void Start();
   /// Waits for the current call.
   void Stop();

private:
   struct Events {
      std::set<std::string> changedVms;
      bool isConnectionLost = false;
      std::string lossReason;
   };

   void OnVmChanged(const std::string& id) override;
   void OnConnectionLost(const std::string& reason) override;

   void Run(const std::stop_token& stop);
   bool Connect();
   void HandleEvents(const std::stop_token& stop);
   Events WaitForEvents(const std::stop_token& stop);
   void BackOff(const std::stop_token& stop);
   void LogFailure(const std::string& text);

   const std::shared_ptr<Hypervisor> _hypervisor;
   LinuxVms& _vms;
   const Corvax::Ref<Corvax::Logger> _logger;
   std::mutex _mutex;
   std::condition_variable_any _changed;
   Events _pending;
   // Used by the thread only.
   std::unique_ptr<HypervisorConnection> _connection;
   int _backOffSec = 0;
   bool _isFailureLogged = false;
   std::jthread _thread;
};

} // namespace LinuxHost
