#pragma once

#include "linuxHost/hypervisor.h"

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace LinuxHost {

/// One call of HypervisorConnection::ReadVms.
struct VmCall {
   std::vector<std::string> ids;
   unsigned parts = kNoVmParts;
   bool waitForMonitor = false;
};

/// Decides which calls a poll makes, so that a monitor that hangs costs no other virtual machine
/// anything.
///
/// Machines are asked for all parts in groups. A call is overdue after a tenth of the interval, at
/// most half a second; later where all calls have lately been slow, but within a quarter.
/// The machines of an overdue group are asked one by one; if a call for one alone is overdue, its
/// monitor is silent: the call is left to hang, and until it returns, further calls for that
/// machine ask for the parts that can do without the monitor. Those return at once, because the
/// hanging call occupies the monitor. A monitor that is in use by another program is waited for in
/// a second call, a moment later.
///
/// Every hanging call occupies a worker of the hypervisor's, of which there are 20, say. With
/// kMostHanging of them, only machines that have answered since are asked.
///
/// Times are monotonic. Locking: none; the caller's.
class PollPlan {
public:
   static constexpr size_t kMostActive = 8; ///< calls at one time that are not overdue
   static constexpr size_t kMostHanging = 12;
   static constexpr size_t kMostCalls = 16; ///< of both kinds

   explicit PollPlan(int64_t intervalUs, uint64_t seed = std::random_device{}());

   /// A poll begins, with all running virtual machines. Calls that the last one did not come to are
   /// not made any more.
   void Begin(const std::vector<VmRecord>& running, int64_t nowUs);
   /// A call to be made now, by the number under which it returns.
   std::optional<std::pair<uint64_t, VmCall>> Next(int64_t nowUs);
   /// When Next may have another call although none has returned; unset: never.
   std::optional<int64_t> GetNextUs() const;
   /// Returns the records that count: not those of a group whose call was overdue, because they
   /// were read at an unknown time, nor those of an earlier start of a machine.
   std::vector<VmRecord> OnReturned(uint64_t number, std::vector<VmRecord> records, int64_t nowUs);
   /// The call has failed: it is made again, for three seconds.
   void OnFailed(uint64_t number, int64_t nowUs);
   /// Only calls that are overdue have not returned.
   bool IsComplete() const;

   /// Why the monitors of these machines gave no figures in this poll, by id.
   std::map<std::string, std::string> GetProblems() const;
   /// The machines with a silent monitor.
   std::vector<std::string> GetSilent() const;

private:
   struct Vm {
      int32_t startId = -1;
      bool isSilent = false; ///< a call for it alone hangs, or has hung while another still does
      uint64_t answeredPoll = 0; ///< in which its monitor has last answered
      std::string problem;
   };
   struct Pending {
      VmCall call;
      int64_t startedUs = 0;
      bool isOverdue = false;
      int failures = 0;
   };
   struct Queued {
      VmCall call;
      int failures = 0;
   };

   void QueueGroups(const std::vector<std::string>& ids);
   int64_t GetPatienceUs(const VmCall& call) const;
   void LearnSpeed(const Pending& pending, int64_t nowUs);
   void MarkOverdue(int64_t nowUs);
   void OnOverdue(const VmCall& call);
   bool MayBegin(const VmCall& call, size_t overdue) const;
   size_t CountOverdue() const;
   bool IsInOverdueCall(const std::string& id) const;
   Pending Take(uint64_t number);
   void OnRecord(const Pending& pending, Vm& vm, const VmRecord& record, int64_t nowUs);

   const int64_t _intervalUs;
   const int64_t _patienceUs;
   const size_t _groupSize;
   std::mt19937_64 _random;
   int64_t _machineUs = 0; // that a machine has lately taken
   std::map<std::string, Vm> _vms;
   std::deque<Queued> _queue;
   std::multimap<int64_t, Queued> _later; // by the time from which on they may begin
   std::map<uint64_t, Pending> _pending;  // by number
   uint64_t _lastNumber = 0;
   uint64_t _poll = 0;
   uint64_t _crowdedPoll = 0; // in which the most calls began to hang; 0: they do not
};

} // namespace LinuxHost
