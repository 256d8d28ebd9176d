#pragma once

#include "corvax/logger.h"
#include "hostctl/resource.h"
#include "inventory/inventory.h"
#include "linuxHost/kernel/controlGroups.h"
#include "linuxHost/kernel/cpuReader.h"
#include "linuxHost/linuxVms.h"
#include "linuxHost/loadHistory.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace LinuxHost {

/// Follows the host's control groups on a thread of its own: keeps the resource pools of the
/// inventory as the groups below the machine group are, and keeps the load histories of the host,
/// of the pools and of running virtual machines.
///
/// Units: a load is CPU time; what waits for a CPU is counted once however many threads wait, as
/// the kernel's pressure figures have it. Errors: a group that cannot be read has no load for that
/// time; one warning is logged until reading works again. Locking: its own, a leaf but for the
/// readers'; any thread may ask.
class GroupWatcher {
public:
   /// Inventory and virtual machines outlive it; `root` goes before the path of every kernel file.
   /// Pools are looked for once a period, at least once a load's period.
   GroupWatcher(const std::string& root, int periodSec, Inventory::Inventory& inventory,
                LinuxVms& vms, Corvax::Logger* logger);
   ~GroupWatcher();
   GroupWatcher(const GroupWatcher&) = delete;
   GroupWatcher& operator=(const GroupWatcher&) = delete;

   /// Finds the pools that are there, then starts the thread.
   void Start();
   void Stop();

   /// The control group of a resource pool; empty for none.
   std::string GetPoolPath(const std::string& poolId) const;

   /// By the id of a virtual machine, a pool or the host; nothing until two readings were made.
   std::optional<HostCtl::Resource::CpuLoadHistory> GetLoad(const std::string& id) const;

   /// One look at the pools, and one reading of all loads at a monotonic time in microseconds. On
   /// the thread, or in its place while it is not started.
   void WatchPools();
   void ReadLoads(int64_t timeUs);

private:
   struct Subject {
      std::string id;
      std::string path;
   };

   void Run(const std::stop_token& stop);
   std::vector<Subject> FindSubjects() const;
   GroupCpu ReadHostLoad();
   void AddReading(const std::string& id, int64_t timeUs, const GroupCpu& reading);
   template <class Operation>
   void Guarded(const Operation& operation);

   const std::chrono::seconds _period;
   Inventory::Inventory& _inventory;
   LinuxVms& _vms;
   const Corvax::Ref<Corvax::Logger> _logger;
   // The thread's own.
   ControlGroups _groups;
   CpuReader _cpu;
   bool _isFailureTold = false;

   mutable std::mutex _mutex;
   std::condition_variable_any _wake;
   std::map<std::string, std::string> _poolPaths;
   std::map<std::string, LoadHistory> _loads;
   std::jthread _thread;
};

} // namespace LinuxHost
