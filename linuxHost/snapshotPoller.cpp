#include "linuxHost/snapshotPoller.h"

#include "corvax/system.h"
#include "corvax/thread.h"
#include "linuxHost/pollPlan.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace LinuxHost {

namespace {

using Corvax::kLogDebug;
using Corvax::kLogNotice;
using Corvax::kLogWarning;
using Corvax::kMicrosecondsPerSecond;
using Corvax::System;

constexpr int kSilentPolls = 2;
constexpr int64_t kMonitorSilenceUs = 10 * kMicrosecondsPerSecond;
constexpr char kNoAnswer[] = "the hypervisor does not answer";
constexpr std::chrono::milliseconds kStopPatience(500);
constexpr int64_t kLongestWaitUs = kMicrosecondsPerSecond; // a stop ends it anyway

/// Up to an eighth of an interval, by host and process.
int64_t ChooseShift(int intervalSec)
{
   char name[256] = "";
   ::gethostname(name, sizeof name - 1);
   const size_t hash = std::hash<std::string>()(name + std::to_string(::getpid()));
   return static_cast<int64_t>(hash %
                               static_cast<size_t>(intervalSec * kMicrosecondsPerSecond / 8));
}

} // namespace

/// What calls bring back, also after the poll in which they were begun.
struct SnapshotPoller::Board {
   Board(int64_t intervalUs, std::shared_ptr<VmHistory> toHistory)
      : history(std::move(toHistory)), plan(intervalUs)
   {
   }

   /// Waits for something to return.
   void Wait(std::unique_lock<std::mutex>& lock, const std::stop_token& stop, int64_t untilUs)
   {
      const int64_t waitUs = std::min(untilUs - System::GetMonotonicTime(), kLongestWaitUs);
      const uint64_t before = returns;
      changed.wait_for(lock, stop, std::chrono::microseconds(std::max<int64_t>(waitUs, 0)),
                       [&] { return returns != before; });
   }

   void OnReturned(uint64_t number, std::vector<VmRecord> records)
   {
      const std::lock_guard guard(mutex);
      records = plan.OnReturned(number, std::move(records), System::GetMonotonicTime());
      hasAnswered = true;
      for (VmRecord& record : records) {
         history->Add(std::move(record));
      }
      ++returns;
      changed.notify_all();
   }

   void OnFailed(uint64_t number, const std::string& error)
   {
      const std::lock_guard guard(mutex);
      plan.OnFailed(number, System::GetMonotonicTime());
      lastError = error;
      ++returns;
      changed.notify_all();
   }

   void OnListed(std::vector<VmRecord> records, const std::optional<std::string>& error)
   {
      const std::lock_guard guard(mutex);
      isListing = false;
      listError = error;
      listed = std::move(records);
      ++returns;
      changed.notify_all();
   }

   const std::shared_ptr<VmHistory> history;
   std::mutex mutex;
   std::condition_variable_any changed;
   PollPlan plan;
   uint64_t returns = 0;
   bool isListing = false;
   std::vector<VmRecord> listed;
   std::optional<std::string> listError;
   bool hasAnswered = false; // in this poll
   std::string lastError;    // in this poll
};

SnapshotPoller::SnapshotPoller(std::shared_ptr<HypervisorGate> gate,
                               std::shared_ptr<VmHistory> history, int intervalSec,
                               Corvax::Logger* logger)
   : _gate(std::move(gate)), _history(std::move(history)), _intervalSec(intervalSec),
     _shiftUs(ChooseShift(intervalSec)), _logger(logger),
     _board(std::make_shared<Board>(intervalSec * kMicrosecondsPerSecond, _history))
{
}

SnapshotPoller::~SnapshotPoller()
{
   Stop();
}

void SnapshotPoller::Start()
{
   _thread = Corvax::StartThread("vm-stats", [this](const std::stop_token& stop) { Run(stop); });
}

bool SnapshotPoller::Stop()
{
   if (_thread.joinable()) {
      _thread.request_stop();
      _thread.join(); // it never waits for a call
   }
   std::vector<std::shared_ptr<HypervisorCaller>> all = std::exchange(_callers, {});
   std::ranges::move(std::exchange(_dropped, {}), std::back_inserter(all));
   if (_lister) {
      all.push_back(std::exchange(_lister, nullptr));
   }
   for (const auto& caller : all) {
      caller->Abandon();
   }
   const auto deadline = std::chrono::steady_clock::now() + kStopPatience;
   bool haveEnded = true;
   for (const auto& caller : all) {
      haveEnded = caller->WaitForEnd(deadline) && haveEnded;
   }
   return haveEnded;
}

int64_t SnapshotPoller::GetDelayToNextPoll(int64_t nowUs, int intervalSec, int64_t shiftUs)
{
   const int64_t intervalUs = intervalSec * kMicrosecondsPerSecond;
   const int64_t sinceLastUs = (nowUs + intervalUs / 2 - shiftUs) % intervalUs;
   return intervalUs - sinceLastUs;
}

void SnapshotPoller::Run(const std::stop_token& stop)
{
   while (!stop.stop_requested()) {
      try {
         Poll(stop);
      } catch (const std::exception& e) { // without threads
         _logger->Log(kLogWarning, "Cannot read the figures of the virtual machines: %1", e.what());
      }
      const int64_t delayUs = GetDelayToNextPoll(System::GetTime(), _intervalSec, _shiftUs);
      std::unique_lock lock(_board->mutex);
      _board->changed.wait_for(lock, stop, std::chrono::microseconds(delayUs),
                               [] { return false; });
   }
}

void SnapshotPoller::Poll(const std::stop_token& stop)
{
   const int64_t intervalUs = _intervalSec * kMicrosecondsPerSecond;
   const int64_t deadlineUs =
      System::GetMonotonicTime() + intervalUs / 2 - _shiftUs - intervalUs / 16;
   const std::optional<std::vector<VmRecord>> running = ListRunning(stop, deadlineUs);
   if (!running) {
      return;
   }
   std::set<std::string> ids;
   for (const VmRecord& record : *running) {
      ids.insert(record.id);
   }
   _history->KeepOnly(ids);
   if (_onRunning) {
      _onRunning(ids);
   }
   {
      const std::lock_guard guard(_board->mutex);
      _board->plan.Begin(*running, System::GetMonotonicTime());
      _board->hasAnswered = false;
      _board->lastError.clear();
   }
   MakeCalls(stop, deadlineUs);
   ReportProblems(*running);
   DropSpareCallers();
}

/// Unset when there was no answer before the deadline.
std::optional<std::vector<VmRecord>> SnapshotPoller::ListRunning(const std::stop_token& stop,
                                                                 int64_t deadlineUs)
{
   while (_gate->Await(stop, deadlineUs)) {
      BeginListing();
      std::unique_lock lock(_board->mutex);
      while (_board->isListing && !stop.stop_requested() &&
             System::GetMonotonicTime() < deadlineUs) {
         _board->Wait(lock, stop, deadlineUs);
      }
      if (_board->isListing) {
         break;
      }
      if (!_board->listError) {
         return std::exchange(_board->listed, {});
      }
      const std::string error = *_board->listError;
      lock.unlock();
      _logger->Log(kLogDebug, "Cannot list the running virtual machines: %1", error);
      if (_gate->GetFailure().empty()) { // connected, but refused this call: no use to insist
         LogSilence(error);
         return std::nullopt;
      }
   }
   if (!stop.stop_requested()) {
      const std::string failure = _gate->GetFailure();
      LogSilence(failure.empty() ? kNoAnswer : failure);
   }
   return std::nullopt;
}

/// Unless a call of an earlier poll has not returned yet: it will serve this one.
void SnapshotPoller::BeginListing()
{
   {
      const std::lock_guard guard(_board->mutex);
      if (std::exchange(_board->isListing, true)) {
         return;
      }
   }
   if (!_lister) {
      _lister = HypervisorCaller::Start("vm-stats-list", _gate);
   }
   auto records = std::make_shared<std::vector<VmRecord>>();
   _lister->Begin(
      [records](HypervisorConnection& connection) {
         *records = connection.ReadVms(kNoVmParts, {}, false);
      },
      [records, board = _board](const std::optional<std::string>& error) {
         board->OnListed(std::move(*records), error);
      });
}

void SnapshotPoller::MakeCalls(const std::stop_token& stop, int64_t deadlineUs)
{
   std::unique_lock lock(_board->mutex);
   while (!stop.stop_requested()) {
      const int64_t nowUs = System::GetMonotonicTime();
      if (nowUs >= deadlineUs) {
         return;
      }
      while (const auto next = _board->plan.Next(nowUs)) {
         lock.unlock();
         BeginCall(next->first, next->second);
         lock.lock();
      }
      if (_board->plan.IsComplete()) {
         return;
      }
      _board->Wait(lock, stop, std::min(deadlineUs, _board->plan.GetNextUs().value_or(deadlineUs)));
   }
}

void SnapshotPoller::BeginCall(uint64_t number, const VmCall& call)
{
   auto records = std::make_shared<std::vector<VmRecord>>();
   FindIdleCaller().Begin(
      [records, call](HypervisorConnection& connection) {
         *records = connection.ReadVms(call.parts, call.ids, call.waitForMonitor);
      },
      [records, number, board = _board, logger = _logger](const std::optional<std::string>& error) {
         if (error) {
            logger->Log(kLogDebug, "Cannot read the figures of virtual machines: %1", *error);
            board->OnFailed(number, *error);
         } else {
            board->OnReturned(number, std::move(*records));
         }
      });
}

HypervisorCaller& SnapshotPoller::FindIdleCaller()
{
   for (const auto& caller : _callers) {
      if (!caller->IsCalling()) {
         return *caller;
      }
   }
   _callers.push_back(HypervisorCaller::Start("vm-stats-call", _gate));
   return *_callers.back();
}

/// Connections that only hanging calls made necessary.
void SnapshotPoller::DropSpareCallers()
{
   std::erase_if(_dropped, [](const auto& caller) {
      return caller->WaitForEnd(std::chrono::steady_clock::time_point());
   });
   size_t idle = 0;
   std::erase_if(_callers, [&](const auto& caller) {
      if (caller->IsCalling() || ++idle <= PollPlan::kMostActive) {
         return false;
      }
      caller->Abandon();
      _dropped.push_back(caller);
      return true;
   });
}

void SnapshotPoller::ReportProblems(const std::vector<VmRecord>& running)
{
   std::vector<std::string> silent;
   std::string error;
   {
      const std::lock_guard guard(_board->mutex);
      const std::map<std::string, std::string> problems = _board->plan.GetProblems();
      for (const VmRecord& record : running) {
         if (const auto problem = problems.find(record.id); problem != problems.end()) {
            _history->Add({record.id, record.takenUs, record.startId, {}, {}, {}}, problem->second);
         }
      }
      silent = _board->plan.GetSilent();
      error = _board->hasAnswered ? "" : _board->lastError;
   }
   LogSilence(error);
   LogSilentMonitors(silent, running);
}

/// An empty reason: it is not silent.
void SnapshotPoller::LogSilence(const std::string& reason)
{
   if (reason.empty()) {
      if (std::exchange(_silentPolls, 0) >= kSilentPolls) {
         _logger->Log(kLogNotice, "The virtual machines' figures are read again");
      }
      return;
   }
   _history->SetSilent(reason);
   if (++_silentPolls == kSilentPolls) {
      _logger->Log(kLogWarning, "The virtual machines have no figures: %1", reason);
   }
}

void SnapshotPoller::LogSilentMonitors(const std::vector<std::string>& silent,
                                       const std::vector<VmRecord>& running)
{
   const int64_t nowUs = System::GetMonotonicTime();
   std::map<std::string, int64_t> sinceUs;
   for (const std::string& id : silent) {
      const auto before = _silentSinceUs.find(id);
      sinceUs[id] = before == _silentSinceUs.end() ? nowUs : before->second;
      if (nowUs - sinceUs[id] >= kMonitorSilenceUs && _silentMonitors.insert(id).second) {
         _logger->Log(kLogWarning, "The monitor of VM %1 does not answer", id);
      }
   }
   _silentSinceUs = std::move(sinceUs);
   std::erase_if(_silentMonitors, [&](const std::string& id) {
      if (_silentSinceUs.contains(id)) {
         return false;
      }
      if (std::ranges::find(running, id, &VmRecord::id) != running.end()) {
         _logger->Log(kLogNotice, "The monitor of VM %1 answers again", id);
      }
      return true;
   });
}

} // namespace LinuxHost
