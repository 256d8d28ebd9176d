#pragma once

#include "corvax/logger.h"
#include "linuxHost/hypervisor.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace LinuxHost {

class SnapshotSource {
public:
   virtual ~SnapshotSource() = default;
   /// The newest complete snapshot, null when there is none that is recent enough.
   virtual std::shared_ptr<const VmSnapshot> GetSnapshot() const = 0;
};

/// Takes a snapshot of all virtual machines for every collection, half an interval ahead of it, so
/// that the collector never waits for the hypervisor.
///
/// A call that has not returned after a quarter of the interval is left to itself, with its
/// connection and thread, and another is made at once: where one virtual machine's monitor hangs,
/// that machine is then the only one missing. What a call left to itself gives in the end counts as
/// any other's, if it is the newest.
/// Errors: none leave it; a call that fails is made again with a new connection for the next
/// collection. That the connection is down is the watcher's to tell.
/// Locking: its own, a leaf; any thread may ask for the snapshot.
class SnapshotPoller : public SnapshotSource {
public:
   SnapshotPoller(std::shared_ptr<Hypervisor> hypervisor, int intervalSec, Corvax::Logger* logger);
   ~SnapshotPoller() override;
   SnapshotPoller(const SnapshotPoller&) = delete;
   SnapshotPoller& operator=(const SnapshotPoller&) = delete;

   void Start();
   /// Waits for no call that hangs.
   void Stop();

   /// None when the newest is more than an interval old.
   std::shared_ptr<const VmSnapshot> GetSnapshot() const override;

   /// One poll: returns when a call has ended, or after the second one's time is up. On the
   /// poller's thread, or in its place while it is not started.
   void Poll();

   /// Microseconds from now until the next poll is due.
   static int64_t GetDelayToNextPoll(int64_t nowUs, int intervalSec);

private:
   class Caller;
   struct Newest;

   void Run(const std::stop_token& stop);
   bool Call();
   void LeaveCaller();

   const std::shared_ptr<Hypervisor> _hypervisor;
   const int _intervalSec;
   const Corvax::Ref<Corvax::Logger> _logger;
   const std::shared_ptr<Newest> _newest;
   std::shared_ptr<Caller> _caller; // null until the first call and after one was left
   std::vector<std::shared_ptr<Caller>> _left;
   std::mutex _wakeMutex;
   std::condition_variable_any _wake;
   std::jthread _thread;
};

} // namespace LinuxHost
