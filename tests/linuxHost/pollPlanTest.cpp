#include "linuxHost/pollPlan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using LinuxHost::PollPlan;
using LinuxHost::VmCall;
using LinuxHost::VmRecord;

namespace {

constexpr int64_t kIntervalUs = 5'000'000;
constexpr int64_t kPollUs = 1'600'000; // the shortest: with the largest shift
constexpr int64_t kReadUs = 4000;      // that a machine takes
constexpr int64_t kNever = INT64_MAX;

std::string Name(int number)
{
   return std::string(1, static_cast<char>('A' + number));
}

/// A daemon whose calls take their time, and polls by a plan, in simulated time.
class PollPlanTest : public testing::Test {
protected:
   /// The machines whose monitors answered in a poll of so many machines, as their names.
   std::string Poll(int machines)
   {
      std::vector<VmRecord> running(static_cast<size_t>(machines));
      for (int i = 0; i < machines; ++i) {
         running[static_cast<size_t>(i)].id = Name(i);
      }
      _withMonitor.clear();
      _withBasics.clear();
      const int64_t endUs = _nowUs + kPollUs;
      _plan.Begin(running, _nowUs);
      do {
         while (const auto next = _plan.Next(_nowUs)) {
            _calls[next->first] = {next->second, 0, _nowUs + kReadUs, {}};
            EXPECT_LE(_calls.size(), PollPlan::kMostCalls);
         }
         Work();
         _nowUs += kReadUs;
      } while (!_plan.IsComplete() && _nowUs < endUs);
      _nowUs += kIntervalUs;
      Work();
      return Join(_withMonitor);
   }

   static std::string Join(const std::set<std::string>& names)
   {
      std::string text;
      for (const std::string& name : names) {
         text += name;
      }
      return text;
   }

   struct Running {
      VmCall call;
      size_t done = 0; // machines
      int64_t nextUs = 0;
      std::vector<VmRecord> records;
   };

   /// Whether the call is done with its present machine.
   bool Read(uint64_t number, Running& running)
   {
      const std::string& id = running.call.ids[running.done];
      const bool isUsed = _usedUntilUs.contains(id) && _usedUntilUs[id] > _nowUs;
      if (_asked.contains(id) && _asked[id] != number ? running.call.waitForMonitor
                                                      : isUsed && running.call.waitForMonitor) {
         return false;
      }
      VmRecord record;
      record.id = id;
      record.basics.emplace();
      if (!isUsed && (!_asked.contains(id) || _asked[id] == number)) {
         if (_hung.contains(id)) {
            _asked[id] = number;
            return false;
         }
         _asked.erase(id);
         if (running.call.parts & LinuxHost::VM_MONITOR) {
            record.monitor.emplace();
         }
      }
      running.records.push_back(record);
      return true;
   }

   void Work()
   {
      for (auto entry = _calls.begin(); entry != _calls.end();) {
         auto& [number, running] = *entry;
         while (running.nextUs <= _nowUs && running.done < running.call.ids.size() &&
                Read(number, running)) {
            running.nextUs += kReadUs;
            ++running.done;
         }
         if (running.done < running.call.ids.size()) {
            ++entry;
            continue;
         }
         for (const VmRecord& record : _plan.OnReturned(number, running.records, _nowUs)) {
            _withBasics.insert(record.id);
            if (record.monitor) {
               _withMonitor.insert(record.id);
            }
         }
         entry = _calls.erase(entry);
      }
   }

   std::string GetSilent() const
   {
      const auto silent = _plan.GetSilent();
      return Join({silent.begin(), silent.end()});
   }

   PollPlan _plan{kIntervalUs, 1};
   int64_t _nowUs = 1'000'000'000;
   std::set<std::string> _hung;
   std::map<std::string, int64_t> _usedUntilUs;
   std::map<uint64_t, Running> _calls;
   std::map<std::string, uint64_t> _asked; // by a call that hangs
   std::set<std::string> _withMonitor;
   std::set<std::string> _withBasics;
};

TEST_F(PollPlanTest, EightOfNineMonitorsHang)
{
   EXPECT_EQ(Poll(9), "ABCDEFGHI");
   _hung = {"A", "B", "C", "D", "E", "F", "G", "H"};
   for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(Poll(9), "I") << i;
      EXPECT_EQ(Join(_withBasics), "ABCDEFGHI") << "CPU and network need no monitor; poll " << i;
      EXPECT_EQ(GetSilent(), "ABCDEFGH") << i;
      EXPECT_EQ(_plan.GetProblems().size(), 8) << i;
   }
   _hung = {"B"};
   Poll(9);
   EXPECT_EQ(Poll(9), "ACDEFGHI");
   EXPECT_EQ(GetSilent(), "B");
}

TEST_F(PollPlanTest, MoreMonitorsHangThanMayBeAsked)
{
   EXPECT_EQ(Poll(26), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
   for (int i = 6; i < 26; ++i) {
      _hung.insert(Name(i));
   }
   for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(Poll(26), "ABCDEF") << i;
      EXPECT_GE(_withBasics.size(), 6 + PollPlan::kMostHanging / 2) << i;
      EXPECT_EQ(_plan.GetProblems().size(), 20) << i;
   }
   _hung.clear();
   Poll(26);
   EXPECT_EQ(Poll(26), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
   EXPECT_TRUE(_calls.empty());
   EXPECT_TRUE(_plan.GetProblems().empty());
}

TEST_F(PollPlanTest, MonitorsThatOthersUseCostNothing)
{
   for (int i = 0; i < 5; ++i) {
      _usedUntilUs = {{"A", _nowUs + 30'000}, {"C", _nowUs + 240'000}, {"D", kNever}};
      _hung = {"B"};
      EXPECT_EQ(Poll(4), "AC") << i;
      EXPECT_EQ(Join(_withBasics), "ABCD") << i;
   }
   EXPECT_EQ(GetSilent(), "BD") << "whoever uses it";
}

TEST_F(PollPlanTest, AFailedCallIsRepeatedAndAnEarlierStartDoesNotCount)
{
   VmRecord vm;
   vm.id = "A";
   vm.startId = 2;
   _plan.Begin({vm}, 0);
   const auto call = _plan.Next(0);
   _plan.OnFailed(call->first, 10);
   EXPECT_FALSE(_plan.IsComplete());
   EXPECT_FALSE(_plan.Next(10));
   const auto again = _plan.Next(_plan.GetNextUs().value());
   ASSERT_TRUE(again);
   EXPECT_EQ(again->second.ids, call->second.ids);
   VmRecord record = vm;
   record.startId = 1;
   EXPECT_TRUE(_plan.OnReturned(again->first, {record}, 200'000).empty());
   EXPECT_TRUE(_plan.IsComplete());
}

} // namespace
