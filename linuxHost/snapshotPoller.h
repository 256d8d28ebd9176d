#pragma once

#include "corvax/logger.h"
#include "linuxHost/hypervisor.h"
#include "linuxHost/vmHistory.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace LinuxHost {

/// Takes a snapshot of all virtual machines for every collection, half an interval ahead of it, so
/// that the collector never waits for the hypervisor.
///
/// A call times out after a quarter of the interval. It is abandoned with its connection and
/// thread, and a second call is made at once: if a virtual machine's monitor hangs, only that
/// machine is missing from the second. When an abandoned call returns after all, its snapshot
/// counts if it is the newest. Errors: none leave it; after a failed call the next poll uses a new
/// connection. The lost connection itself is reported by VmWatcher. Locking: its own, a leaf; any
/// thread may get the snapshot.
class SnapshotPoller {
public:
   SnapshotPoller(std::shared_ptr<Hypervisor> hypervisor, std::shared_ptr<VmHistory> history,
                  int intervalSec, Corvax::Logger* logger);
   ~SnapshotPoller();
   SnapshotPoller(const SnapshotPoller&) = delete;
   SnapshotPoller& operator=(const SnapshotPoller&) = delete;

   void Start();
   /// Does not wait for abandoned calls.
   void Stop();

   /// One poll: returns when a call has ended or the second one has timed out. Called by the
   /// poller's thread; by others only while that is not running.
   void Poll();

   /// Microseconds from now until the next poll is due.
   static int64_t GetDelayToNextPoll(int64_t nowUs, int intervalSec);

private:
   class Caller;

   void Run(const std::stop_token& stop);
   bool Call();
   void AbandonCaller();

   const std::shared_ptr<Hypervisor> _hypervisor;
   const int _intervalSec;
   const Corvax::Ref<Corvax::Logger> _logger;
   const std::shared_ptr<VmHistory> _history;
   std::shared_ptr<Caller> _caller; // null until the first call and after an abandoned one
   std::vector<std::shared_ptr<Caller>> _abandoned;
   std::mutex _wakeMutex;
   std::condition_variable_any _wake;
   std::jthread _thread;
};

} // namespace LinuxHost
