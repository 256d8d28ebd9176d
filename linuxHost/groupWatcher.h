#pragma once

#include "corvax/logger.h"
#include "hostctl/resource.h"
#include "inventory/inventory.h"
#include "linuxHost/groupTree.h"
#include "linuxHost/kernel/controlGroups.h"
#include "linuxHost/kernel/cpuReader.h"
#include "linuxHost/kernel/limitedTime.h"
#include "linuxHost/linuxVms.h"
#include "linuxHost/loadHistory.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

namespace LinuxHost {

/// Watches the host's control groups on its own thread: keeps the inventory's resource pools the
/// same as the groups below the machine group, and keeps the load histories of the host, the pools
/// and the running virtual machines.
///
/// Units: a load is CPU time. Waiting time counts once however many threads wait, as in the
/// kernel's pressure figures. Errors: while groups cannot be listed, everything stays as it is,
/// with one warning; an entity whose group cannot be read has no load for that time, with one
/// warning that names it. Locking: its own, a leaf; any thread may call.
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

   /// Of a virtual machine, a pool or the host by its id; unset until it was read twice, and when
   /// it was not read for longer than a history's gap.
   std::optional<HostCtl::Resource::CpuLoadHistory> GetLoad(const std::string& id) const;

private:
   /// An entity with a load, and its control group.
   struct Subject {
      std::string id;
      std::string path;
      bool isVm = false;
   };
   /// What is kept of it.
   struct Load {
      std::string path; // the history is that of this group
      LoadHistory history;
      LimitedTime limited;
   };

   void Run(const std::stop_token& stop);
   void UpdatePools();
   void ReadLoads();
   /// False when the subject's group is gone.
   bool ReadLoad(const Subject& subject);
   std::vector<Subject> FindSubjects() const;
   GroupCpu ReadHostLoad();
   std::optional<GroupCpu> ReadGroup(const Subject& subject, LimitedTime& limited);
   Load& FindLoad(const Subject& subject);
   /// Logs one warning, "Cannot look up WHAT", until the operation succeeds again.
   template <class Operation>
   void Guarded(const std::string& what, const Operation& operation);

   const int64_t _periodUs;
   Inventory::Inventory& _inventory;
   LinuxVms& _vms;
   const Corvax::Ref<Corvax::Logger> _logger;
   // Used by the thread only.
   ControlGroups _groups;
   CpuReader _cpu;
   PoolTracker _pools;
   std::set<std::string> _failing; // operations of Guarded

   mutable std::mutex _mutex;
   std::condition_variable_any _wake;
   std::map<std::string, std::string> _poolPaths;
   std::map<std::string, Load> _loads; // by id; changed by the thread only
   std::jthread _thread;
};

} // namespace LinuxHost
