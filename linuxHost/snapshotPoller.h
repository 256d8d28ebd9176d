#pragma once

#include "corvax/logger.h"
#include "linuxHost/hypervisorCaller.h"
#include "linuxHost/vmHistory.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace LinuxHost {

struct VmCall;

/// Reads the figures of all running virtual machines for every collection, half an interval ahead
/// of it, so that the collector never waits for the hypervisor.
///
/// A poll asks which machines run, which no monitor can block, and then makes the calls of a
/// PollPlan. It ends shortly before the collection; readings that come later still count. While the
/// hypervisor cannot be reached, as in its restart, it tries again until then. Errors: none leave
/// it. A hypervisor that is silent for two polls and a monitor that is for ten seconds are logged
/// once. Locking: its own; takes the history's lock.
class SnapshotPoller {
public:
   using RunningHandler = std::function<void(const std::set<std::string>&)>;

   SnapshotPoller(std::shared_ptr<HypervisorGate> gate, std::shared_ptr<VmHistory> history,
                  int intervalSec, Corvax::Logger* logger);
   ~SnapshotPoller();
   SnapshotPoller(const SnapshotPoller&) = delete;
   SnapshotPoller& operator=(const SnapshotPoller&) = delete;

   /// Called in every poll, on its thread, with the ids of the running machines. Before Start.
   void SetRunningHandler(RunningHandler handler) { _onRunning = std::move(handler); }

   void Start();
   /// False when calls still hang after half a second: their threads live on.
   bool Stop();

   /// One poll. Called by the poller's thread; by others only while that is not running.
   void Poll(const std::stop_token& stop = {});

   /// Microseconds from now until the next poll is due: half an interval before a boundary, and
   /// `shiftUs` later.
   static int64_t GetDelayToNextPoll(int64_t nowUs, int intervalSec, int64_t shiftUs);

private:
   struct Board;

   void Run(const std::stop_token& stop);
   std::optional<std::vector<VmRecord>> ListRunning(const std::stop_token& stop,
                                                    int64_t deadlineUs);
   void BeginListing();
   void MakeCalls(const std::stop_token& stop, int64_t deadlineUs);
   void BeginCall(uint64_t number, const VmCall& call);
   HypervisorCaller& FindIdleCaller();
   void DropSpareCallers();
   void ReportProblems(const std::vector<VmRecord>& running);
   void LogSilence(const std::string& reason);
   void LogSilentMonitors(const std::vector<std::string>& silent,
                          const std::vector<VmRecord>& running);

   const std::shared_ptr<HypervisorGate> _gate;
   const std::shared_ptr<VmHistory> _history;
   const int _intervalSec;
   const int64_t _shiftUs; // two agents on a host must not always ask at the same time
   const Corvax::Ref<Corvax::Logger> _logger;
   const std::shared_ptr<Board> _board; // shared with calls that hang
   RunningHandler _onRunning;
   // Used by the thread only.
   std::shared_ptr<HypervisorCaller> _lister;
   std::vector<std::shared_ptr<HypervisorCaller>> _callers;
   std::vector<std::shared_ptr<HypervisorCaller>> _dropped;
   int _silentPolls = 0;
   std::map<std::string, int64_t> _silentSinceUs; // monitors
   std::set<std::string> _silentMonitors;         // as logged
   std::jthread _thread;
};

} // namespace LinuxHost
