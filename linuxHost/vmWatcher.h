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

/// Follows the hypervisor's virtual machines through one connection, on a thread of its own.
///
/// An event says only that a virtual machine is not what it was: the hypervisor is then asked what
/// it is now, so that the order and number of events do not matter. When the connection is lost, it
/// is made again with a pause that grows from one second to a minute, and everything is asked anew;
/// what was missed meanwhile comes out as changes. The first failure in a row is a warning, further
/// ones go to the debug log.
/// Locking: its own, a leaf.
class VmWatcher : private HypervisorListener {
public:
   /// `vms` outlives it.
   VmWatcher(std::shared_ptr<Hypervisor> hypervisor, LinuxVms& vms, Corvax::Logger* logger);
   ~VmWatcher() override;
   VmWatcher(const VmWatcher&) = delete;
   VmWatcher& operator=(const VmWatcher&) = delete;

   void Start();
   /// Waits for a call under way.
   void Stop();

private:
   struct News {
      std::set<std::string> changed;
      bool isLost = false;
      std::string lossReason;
   };

   void OnVmChanged(const std::string& id) override;
   void OnConnectionLost(const std::string& reason) override;

   void Run(const std::stop_token& stop);
   void Follow(const std::stop_token& stop);
   bool Connect();
   News WaitForNews(const std::stop_token& stop);
   void Pause(const std::stop_token& stop);
   void LogFailure(const std::string& text);

   const std::shared_ptr<Hypervisor> _hypervisor;
   LinuxVms& _vms;
   const Corvax::Ref<Corvax::Logger> _logger;
   std::mutex _mutex;
   std::condition_variable_any _changed;
   News _news;
   // The thread's own.
   std::unique_ptr<HypervisorConnection> _connection;
   int _pauseSec = 0;
   bool _isFailureTold = false;
   std::jthread _thread;
};

} // namespace LinuxHost
