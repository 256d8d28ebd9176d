#include "linuxHost/snapshotPoller.h"
#include "corvax/format.h"
#include "linuxHost/vmWatcher.h"
#include "tests/fakes/fakeAgent.h"
#include "tests/fakes/fakeHypervisor.h"
#include "tests/fakes/kernelTree.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

using LinuxHost::HypervisorGate;
using LinuxHost::SnapshotPoller;
using LinuxHost::VmHistory;
using Quen::Vm::Freshness;
using Quen::Vm::PowerState;

namespace {

constexpr int kIntervalSec = 20; // long, so that a busy machine does not end a poll
constexpr char kSilent[] = "its monitor does not answer";

/// Waits without a limit of its own: ctest's time limit ends a test that waits forever.
void WaitFor(const std::function<bool()>& condition)
{
   while (!condition()) {
      std::this_thread::yield();
   }
}

/// The machine's clock, ahead by what a test wants.
struct FastClock : Corvax::Clock {
   FastClock() { Corvax::System::SetClock(this); }
   ~FastClock() override { Corvax::System::SetClock(nullptr); }
   int64_t GetTime() override { return GetMonotonicTime(); }
   int64_t GetMonotonicTime() override
   {
      const auto now = std::chrono::steady_clock::now().time_since_epoch();
      return std::chrono::duration_cast<std::chrono::microseconds>(now).count() + aheadUs;
   }
   void GetCpuTime(int64_t& userUs, int64_t& systemUs) override { userUs = systemUs = 0; }
   std::atomic<int64_t> aheadUs = 0;
};

class HypervisorTest : public testing::Test {
protected:
   ~HypervisorTest() override
   {
      // The threads of calls that hung use the clock.
      WaitFor([this] { return _gate.use_count() == 1; });
   }

   void AddVm(const std::string& id)
   {
      LinuxHost::VmDescription vm;
      vm.id = id;
      vm.name = id;
      vm.powerState = PowerState::POWERED_ON;
      LinuxHost::VmRecord record;
      record.basics.emplace();
      record.monitor.emplace();
      _hypervisor->Set(vm, record);
   }

   FastClock _clock;
   FakeAgent _agent;
   const std::shared_ptr<FakeHypervisor> _hypervisor = std::make_shared<FakeHypervisor>();
   const std::shared_ptr<HypervisorGate> _gate = std::make_shared<HypervisorGate>(_hypervisor);
   const std::shared_ptr<VmHistory> _history = std::make_shared<VmHistory>(kIntervalSec);
};

class SnapshotPollerTest : public HypervisorTest {
protected:
   SnapshotPollerTest()
   {
      AddVm("a");
      AddVm("b");
      AddVm("c");
   }
   ~SnapshotPollerTest() override
   {
      _hypervisor->Hang({});
      _hypervisor->Stop(false);
   }

   /// "a:partly,its monitor does not answer" and so on, for those that are not fresh.
   std::string Poll()
   {
      _poller.Poll();
      std::string text;
      for (const std::string id : {"a", "b", "c"}) {
         const Freshness freshness = _history->GetFreshness(id);
         if (freshness.state != Freshness::State::FRESH) {
            text += Corvax::Format("%1:%2 ", id, freshness.reason);
         }
      }
      return text;
   }

   /// On a busy machine a monitor that does not hang may be late, too.
   void PollUntil(const std::string& expected)
   {
      WaitFor([&] { return Poll() == expected; });
   }

   SnapshotPoller _poller{_gate, _history, kIntervalSec, _agent.logger.Get()};
};

TEST_F(SnapshotPollerTest, HangingMonitorsCostOnlyTheirOwnMachines)
{
   _hypervisor->Hang({"a", "c"});
   PollUntil(Corvax::Format("a:%1 c:%1 ", kSilent));
   EXPECT_EQ(_agent.logger->CountLevel(Corvax::kLogWarning), 0) << "it may just be slow";
   _clock.aheadUs += 10 * Corvax::kMicrosecondsPerSecond;
   Poll();
   Poll();
   EXPECT_EQ(_agent.logger->Count("4 The monitor of VM a does not answer"), 1);
   EXPECT_FALSE(_poller.Stop()) << "calls hang";
   _hypervisor->Hang({});
   PollUntil("");
   EXPECT_EQ(_agent.logger->Count("5 The monitor of VM a answers again"), 1);
   EXPECT_TRUE(_poller.Stop());
}

TEST_F(SnapshotPollerTest, AMonitorThatAnotherProgramUsesIsWaitedFor)
{
   _hypervisor->Use({"b"});
   const std::jthread user([this] {
      WaitFor([this] { return _hypervisor->GetWaiting() > 0; });
      _hypervisor->Use({});
   });
   PollUntil("");
   EXPECT_EQ(_agent.logger->CountLevel(Corvax::kLogWarning), 0);
}

TEST_F(SnapshotPollerTest, AHypervisorThatRestartsIsAskedInTheSamePoll)
{
   Poll();
   const int64_t reads = _hypervisor->GetReads();
   const int64_t attempts = _hypervisor->GetAttempts();
   _hypervisor->GoDown();
   const std::jthread restart([&] {
      WaitFor([&] { return _hypervisor->GetAttempts() >= attempts + 3; });
      _hypervisor->ComeBack();
   });
   Poll();
   EXPECT_GT(_hypervisor->GetReads(), reads);
   _hypervisor->GoDown();
   _hypervisor->ComeBack();
   const int64_t readsBefore = _hypervisor->GetReads();
   Poll();
   EXPECT_GT(_hypervisor->GetReads(), readsBefore) << "the connections are dead";
   EXPECT_EQ(_agent.logger->CountLevel(Corvax::kLogWarning), 0);
}

TEST_F(SnapshotPollerTest, ASilentHypervisorIsNamedOnce)
{
   VmHistory& history = *_history;
   _hypervisor->Stop(true);
   SnapshotPoller poller(_gate, _history, 1, _agent.logger.Get());
   poller.Poll();
   poller.Poll();
   EXPECT_EQ(history.GetFreshness("a").reason, "the hypervisor does not answer");
   EXPECT_EQ(_agent.logger->Count("4 The virtual machines have no figures"), 1);
   EXPECT_FALSE(poller.Stop()) << "the call hangs";
   _hypervisor->Stop(false);
   PollUntil("");
}

TEST_F(SnapshotPollerTest, ARefusalIsNamedAndNotRepeatedSoon)
{
   _hypervisor->Refuse(true);
   SnapshotPoller poller(_gate, _history, 1, _agent.logger.Get());
   poller.Poll();
   poller.Poll();
   EXPECT_EQ(_hypervisor->GetAttempts(), 1);
   EXPECT_EQ(_history->GetFreshness("a").reason, "authentication failed");
}

TEST(ConnectBackOffTest, PausesGrow)
{
   constexpr int64_t kSecond = Corvax::kMicrosecondsPerSecond;
   LinuxHost::ConnectBackOff backOff;
   std::vector<int64_t> pauses;
   const auto fail = [&](int times, bool isRefused) {
      pauses.clear();
      for (int i = 0; i < times; ++i) {
         const int64_t nowUs = backOff.GetDueUs() + kSecond;
         backOff.OnFailure(nowUs, isRefused);
         pauses.push_back((backOff.GetDueUs() - nowUs) * 10 / kSecond);
      }
      return pauses;
   };
   EXPECT_EQ(fail(20, false), std::vector<int64_t>(20, 1));
   EXPECT_EQ(fail(5, false), (std::vector<int64_t>{10, 20, 40, 50, 50}));
   EXPECT_EQ(fail(8, true), (std::vector<int64_t>{100, 200, 400, 800, 1600, 3200, 6000, 6000}));
   EXPECT_EQ(fail(1, false), std::vector<int64_t>{1});
   backOff.OnSuccess();
   EXPECT_EQ(backOff.GetDueUs(), 0);
}

TEST(SnapshotPollerTimeTest, APollIsDueHalfAnIntervalBeforeTheBoundary)
{
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(0, 20, 0), 10000000);
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(9999999, 20, 0), 1);
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(10000000, 20, 0), 20000000) << "once per interval";
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(1700000000600000, 1, 0), 900000);
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(10000000, 20, 2000000), 2000000);
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(12000000, 20, 2000000), 20000000);
}

class VmWatcherTest : public HypervisorTest, protected KernelTree {
protected:
   PowerState GetState(const std::string& id)
   {
      const auto vm = _vms.Find(id);
      return vm ? vm->GetPowerState() : PowerState::SUSPENDED;
   }

   Inventory::Inventory _inventory{"root", "host"};
   LinuxHost::LinuxVms _vms{GetRoot(), _inventory, *_history, _agent.logger.Get()};
   LinuxHost::VmWatcher _watcher{_gate, _vms, _agent.logger.Get()};
};

TEST_F(VmWatcherTest, AChangeWithoutAnEventIsFoundByThePolls)
{
   AddVm("a");
   _watcher.Start();
   WaitFor([this] { return GetState("a") == PowerState::POWERED_ON; });
   _hypervisor->SetStateUnnoticed("a", PowerState::POWERED_OFF);
   WaitFor([this] {
      _watcher.OnPolled({});
      return GetState("a") == PowerState::POWERED_OFF;
   });
   _hypervisor->SetStateUnnoticed("a", PowerState::POWERED_ON);
   WaitFor([this] {
      _watcher.OnPolled({"a"});
      return GetState("a") == PowerState::POWERED_ON;
   });
}

TEST_F(VmWatcherTest, AMachineThatCannotBeDescribedIsLeftOutAndNamedOnce)
{
   AddVm("a");
   AddVm("b");
   _hypervisor->Damage({"a"});
   _watcher.Start();
   WaitFor([this] { return GetState("b") == PowerState::POWERED_ON; });
   _hypervisor->SetState("a", PowerState::POWERED_ON);
   _hypervisor->SetState("b", PowerState::POWERED_OFF);
   WaitFor([this] { return GetState("b") == PowerState::POWERED_OFF; });
   EXPECT_FALSE(_vms.Find("a"));
   _hypervisor->Damage({});
   _hypervisor->SetState("a", PowerState::POWERED_ON);
   WaitFor([this] { return GetState("a") == PowerState::POWERED_ON; });
   WaitFor([this] { return _agent.logger->Count("5 VM a can be described again") == 1; });
   EXPECT_EQ(_agent.logger->CountLevel(Corvax::kLogWarning), 1);
}

TEST_F(VmWatcherTest, AStopDoesNotWaitForACallThatHangs)
{
   _hypervisor->Stop(true);
   _watcher.Start();
   WaitFor([this] { return _hypervisor->GetAttempts() == 1; });
   EXPECT_FALSE(_watcher.Stop());
   _hypervisor->Stop(false);
}

} // namespace
