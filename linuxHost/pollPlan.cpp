#include "linuxHost/pollPlan.h"

#include <algorithm>
#include <utility>

namespace LinuxHost {

namespace {

constexpr unsigned kWithoutMonitor = VM_BASICS | VM_VCPUS;
constexpr unsigned kAllParts = kWithoutMonitor | VM_MONITOR;

constexpr int64_t kLongestPatienceUs = 500'000;
constexpr int64_t kUsualTimeUs = 25'000; // for one machine, on a busy host
constexpr size_t kLargestGroup = 16;
constexpr int64_t kShortestPauseUs = 50'000;
constexpr int64_t kLongestPauseUs = 200'000;
constexpr int64_t kRepeatPauseUs = 100'000;
constexpr int kMostFailures = 30;

constexpr char kSilent[] = "its monitor does not answer";
constexpr char kInUse[] = "its monitor is in use by another program";
constexpr char kNotAsked[] = "its monitor is not asked while too many others do not answer";

VmCall AskOne(const std::string& id, unsigned parts)
{
   return {{id}, parts, false};
}

} // namespace

PollPlan::PollPlan(int64_t intervalUs, uint64_t seed)
   : _intervalUs(intervalUs), _patienceUs(std::min(intervalUs / 10, kLongestPatienceUs)),
     _groupSize(
        std::clamp<size_t>(static_cast<size_t>(_patienceUs / kUsualTimeUs), 1, kLargestGroup)),
     _random(seed)
{
}

void PollPlan::Begin(const std::vector<VmRecord>& running, int64_t nowUs)
{
   ++_poll;
   _later.clear();
   std::map<std::string, Vm> vms;
   for (const VmRecord& record : running) {
      Vm& vm = vms[record.id];
      const auto before = _vms.find(record.id);
      if (before != _vms.end() && before->second.startId == record.startId) {
         vm = before->second;
      }
      vm.startId = record.startId;
   }
   _vms = std::move(vms);
   MarkOverdue(nowUs);
   _queue.clear(); // not before: these are asked anew anyway
   std::vector<std::string> answering;
   std::vector<std::string> others;
   for (auto& [id, vm] : _vms) {
      if (vm.isSilent) {
         _queue.push_back({AskOne(id, kWithoutMonitor)});
      } else if (vm.answeredPoll + 1 == _poll || CountOverdue() == 0) {
         answering.push_back(id);
      } else {
         others.push_back(id);
      }
   }
   QueueGroups(answering);
   for (const std::string& id : others) {
      _queue.push_back({AskOne(id, kAllParts)});
   }
}

void PollPlan::QueueGroups(const std::vector<std::string>& ids)
{
   // At least one group for each call that may be made at a time.
   const size_t size =
      std::clamp<size_t>((ids.size() + kMostActive - 1) / kMostActive, 1, _groupSize);
   for (size_t first = 0; first < ids.size(); first += size) {
      const size_t end = std::min(first + size, ids.size());
      VmCall call;
      call.ids.assign(ids.begin() + static_cast<ptrdiff_t>(first),
                      ids.begin() + static_cast<ptrdiff_t>(end));
      call.parts = kAllParts;
      _queue.push_back({std::move(call)});
   }
}

/// Four times of what such calls have lately taken.
int64_t PollPlan::GetPatienceUs(const VmCall& call) const
{
   const int64_t usualUs = _machineUs * static_cast<int64_t>(call.ids.size());
   return std::clamp(4 * usualUs, _patienceUs, _intervalUs / 4);
}

/// A call that was much longer has hung.
void PollPlan::LearnSpeed(const Pending& pending, int64_t nowUs)
{
   const int64_t callUs = nowUs - pending.startedUs;
   if (callUs <= _intervalUs / 2) {
      const auto machineUs = callUs / static_cast<int64_t>(pending.call.ids.size());
      _machineUs = (3 * _machineUs + machineUs) / 4;
   }
}

void PollPlan::MarkOverdue(int64_t nowUs)
{
   for (auto& [number, pending] : _pending) {
      if (!pending.isOverdue && nowUs - pending.startedUs >= GetPatienceUs(pending.call)) {
         pending.isOverdue = true;
         OnOverdue(pending.call);
      }
   }
   if (CountOverdue() < kMostHanging) {
      _crowdedPoll = 0;
   } else if (_crowdedPoll == 0) {
      _crowdedPoll = _poll;
   }
}

void PollPlan::OnOverdue(const VmCall& call)
{
   for (const std::string& id : call.ids) {
      const auto vm = _vms.find(id);
      if (vm == _vms.end()) {
         continue;
      }
      if (call.ids.size() > 1) {
         _queue.push_back({AskOne(id, kAllParts)});
      } else if (!vm->second.isSilent) {
         vm->second.isSilent = true;
         vm->second.problem = kSilent;
         _queue.push_front({AskOne(id, kWithoutMonitor)});
      }
   }
}

bool PollPlan::MayBegin(const VmCall& call, size_t overdue) const
{
   if (_pending.size() >= kMostCalls || _pending.size() - overdue >= kMostActive) {
      return false;
   }
   return overdue < kMostHanging || !(call.parts & VM_MONITOR) ||
          std::ranges::all_of(
             call.ids,
             [this](const std::string& id) {
                const auto vm = _vms.find(id);
                return vm != _vms.end() && vm->second.answeredPoll >= _crowdedPoll;
             });
}

std::optional<std::pair<uint64_t, VmCall>> PollPlan::Next(int64_t nowUs)
{
   MarkOverdue(nowUs);
   while (!_later.empty() && _later.begin()->first <= nowUs) {
      _queue.push_back(std::move(_later.begin()->second));
      _later.erase(_later.begin());
   }
   const size_t overdue = CountOverdue();
   const auto next = std::ranges::find_if(
      _queue, [&](const Queued& queued) { return MayBegin(queued.call, overdue); });
   if (next == _queue.end()) {
      return std::nullopt;
   }
   const Queued queued = std::move(*next);
   _queue.erase(next);
   _pending[++_lastNumber] = {queued.call, nowUs, false, queued.failures};
   return std::pair(_lastNumber, queued.call);
}

std::optional<int64_t> PollPlan::GetNextUs() const
{
   std::optional<int64_t> nextUs;
   const auto take = [&nextUs](int64_t us) { nextUs = std::min(nextUs.value_or(us), us); };
   for (const auto& [number, pending] : _pending) {
      if (!pending.isOverdue) {
         take(pending.startedUs + GetPatienceUs(pending.call));
      }
   }
   if (!_later.empty()) {
      take(_later.begin()->first);
   }
   return nextUs;
}

PollPlan::Pending PollPlan::Take(uint64_t number)
{
   const auto found = _pending.find(number);
   Pending pending = std::move(found->second);
   _pending.erase(found);
   for (const std::string& id : pending.call.ids) {
      const auto vm = _vms.find(id);
      if (vm != _vms.end() && vm->second.isSilent && !IsInOverdueCall(id)) {
         vm->second.isSilent = false;
      }
   }
   return pending;
}

std::vector<VmRecord> PollPlan::OnReturned(uint64_t number, std::vector<VmRecord> records,
                                           int64_t nowUs)
{
   MarkOverdue(nowUs);
   const Pending pending = Take(number);
   LearnSpeed(pending, nowUs);
   std::vector<VmRecord> counting;
   if (pending.isOverdue && pending.call.ids.size() > 1) {
      return counting;
   }
   for (VmRecord& record : records) {
      const auto vm = _vms.find(record.id);
      if (vm != _vms.end() && vm->second.startId == record.startId) {
         OnRecord(pending, vm->second, record, nowUs);
         counting.push_back(std::move(record));
      }
   }
   return counting;
}

void PollPlan::OnRecord(const Pending& pending, Vm& vm, const VmRecord& record, int64_t nowUs)
{
   if (record.monitor) {
      vm.answeredPoll = _poll;
      vm.isSilent = false;
      vm.problem.clear();
   } else if ((pending.call.parts & VM_MONITOR) && !vm.isSilent) {
      if (vm.problem != kSilent) {
         vm.problem = IsInOverdueCall(record.id) ? kSilent : kInUse;
      }
      if (!pending.call.waitForMonitor) {
         const int64_t pauseUs =
            std::uniform_int_distribution(kShortestPauseUs, kLongestPauseUs)(_random);
         _later.emplace(nowUs + pauseUs, Queued{{{record.id}, kAllParts, true}});
      }
   }
}

void PollPlan::OnFailed(uint64_t number, int64_t nowUs)
{
   const Pending pending = Take(number);
   if (!pending.isOverdue && pending.failures < kMostFailures) {
      _later.emplace(nowUs + kRepeatPauseUs, Queued{pending.call, pending.failures + 1});
   }
}

bool PollPlan::IsComplete() const
{
   return _later.empty() && CountOverdue() == _pending.size() &&
          std::ranges::none_of(_queue, [overdue = CountOverdue(), this](const Queued& queued) {
             return MayBegin(queued.call, overdue);
          });
}

size_t PollPlan::CountOverdue() const
{
   return static_cast<size_t>(
      std::ranges::count_if(_pending, [](const auto& entry) { return entry.second.isOverdue; }));
}

bool PollPlan::IsInOverdueCall(const std::string& id) const
{
   return std::ranges::any_of(_pending, [&id](const auto& entry) {
      const Pending& pending = entry.second;
      return pending.isOverdue && std::ranges::find(pending.call.ids, id) != pending.call.ids.end();
   });
}

std::map<std::string, std::string> PollPlan::GetProblems() const
{
   std::map<std::string, std::string> problems;
   for (const auto& [id, vm] : _vms) {
      if (!vm.problem.empty()) {
         problems[id] = vm.problem;
      }
   }
   for (const Queued& queued : _queue) {
      for (const std::string& id : queued.call.ids) {
         problems.try_emplace(id, kNotAsked);
      }
   }
   return problems;
}

std::vector<std::string> PollPlan::GetSilent() const
{
   std::vector<std::string> silent;
   for (const auto& [id, vm] : _vms) {
      if (vm.problem == kSilent) {
         silent.push_back(id);
      }
   }
   return silent;
}

} // namespace LinuxHost
