#pragma once

#include "corvax/logger.h"
#include "hostctl/resource.h"
#include "inventory/inventory.h"
#include "linuxHost/kernel/controlGroups.h"
#include "linuxHost/kernel/cpuReader.h"
#include "linuxHost/linuxVms.h"
#include "linuxHost/loadHistory.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace LinuxHost {

/// Watches the host's control groups on its own thread: keeps the inventory's resource pools the
/// same as the groups below the machine group, and keeps the load histories of the host, the pools
/// and the running virtual machines.
///
/// Units: a load is CPU time. Waiting time counts once however many threads wait, as in the
/// kernel's pressure figures. Errors: a group that cannot be read has no load for that time; one
/// warning is logged until reading works again. Locking: its own, a leaf; any thread may call.
class GroupWatcher {
public:
   /// Inventory and virtual machines outlive it; `root` goes before the path of every kernel file.
   /// Pools are looked up every `periodSec` seconds, at least every LoadHistory::kSamplePeriodUs.
   GroupWatcher(const std::string& root, int periodSec, Inventory::Inventory& inventory,
                LinuxVms& vms, Corvax::Logger* logger);
   ~GroupWatcher();
   GroupWatcher(const GroupWatcher&) = delete;
   GroupWatcher& operator=(const GroupWatcher&) = delete;

   /// Adds the existing pools to the inventory, then starts the thread.
   void Start();
   void Stop();

   /// Path of a resource pool's control group; empty when it has none.
   std::string GetPoolPath(const std::string& poolId) const;

   /// Of a virtual machine, a pool or the host by its id; unset until it was read twice.
   std::optional<HostCtl::Resource::CpuLoadHistory> GetLoad(const std::string& id) const;

private:
   /// An entity with a load, and its control group.
   struct Subject {
      std::string id;
      std::string path;
   };

   void Run(const std::stop_token& stop);
   void UpdatePools();
   /// `timeUs` is the monotonic time.
   void ReadLoads(int64_t timeUs);
   std::vector<Subject> FindSubjects() const;
   GroupCpu ReadHostLoad();
   void AddReading(const std::string& id, int64_t timeUs, const GroupCpu& reading);
   template <class Operation>
   void Guarded(const Operation& operation);

   const int64_t _periodUs;
   Inventory::Inventory& _inventory;
   LinuxVms& _vms;
   const Corvax::Ref<Corvax::Logger> _logger;
   // Used by the thread only.
   ControlGroups _groups;
   CpuReader _cpu;
   bool _isFailureLogged = false;

   mutable std::mutex _mutex;
   std::condition_variable_any _wake;
   std::map<std::string, std::string> _poolPaths;
   std::map<std::string, LoadHistory> _loads;
   std::jthread _thread;
};

} // namespace LinuxHost
