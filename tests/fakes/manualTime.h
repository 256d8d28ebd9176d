#pragma once

#include "corvax/scheduler.h"
#include "corvax/system.h"

#include <atomic>
#include <map>

/// A clock that moves only when the test sets it.
class ManualClock : public Corvax::Clock {
public:
   ManualClock() { Corvax::System::SetClock(this); }
   ~ManualClock() override { Corvax::System::SetClock(nullptr); }

   int64_t GetTime() override { return nowUs; }
   int64_t GetMonotonicTime() override { return monotonicUs; }
   void GetCpuTime(int64_t& userUs, int64_t& systemUs) override
   {
      userUs = cpuUs;
      systemUs = 0;
   }
   void Advance(int64_t us)
   {
      nowUs += us;
      monotonicUs += us;
   }
   void SetSeconds(int64_t seconds) { nowUs = seconds * Corvax::kMicrosecondsPerSecond; }

   std::atomic<int64_t> nowUs{0}; // a server's threads read it
   std::atomic<int64_t> monotonicUs{0};
   int64_t cpuUs = 0;
};

/// The timer facility of the test's thread: the test runs the items.
class ManualScheduler : public Corvax::Scheduler, public Corvax::ObjectImpl {
public:
   explicit ManualScheduler(ManualClock& clock) : _clock(clock)
   {
      Corvax::System::SetThisThread(this);
   }
   ~ManualScheduler() override { Corvax::System::SetThisThread(nullptr); }

   Corvax::Ref<Corvax::ScheduledItem> ScheduleOnce(Corvax::Ref<Corvax::Functor<>> functor,
                                                   int64_t delayUs) override
   {
      auto item = Corvax::MakeRef<Item>();
      item->functor = functor;
      item->latestUs = _clock.monotonicUs + delayUs;
      _items.emplace(_clock.nowUs + delayUs, item);
      return item;
   }

   /// Due time of the earliest pending item, -1 when there is none.
   int64_t GetDueUs()
   {
      std::erase_if(_items, [](const auto& entry) { return !entry.second->functor; });
      return _items.empty() ? -1 : _items.begin()->first;
   }
   size_t GetWaiting()
   {
      GetDueUs();
      return _items.size();
   }

   /// Moves both clocks to the earliest item and calls it.
   void RunNext()
   {
      _clock.Advance(std::max<int64_t>(GetDueUs() - _clock.nowUs, 0));
      TakeNext()->operator()();
   }
   /// Calls the earliest item if a timer thread would do so now.
   void RunIfDue()
   {
      const int64_t dueUs = GetDueUs();
      if (dueUs >= 0 &&
          (dueUs <= _clock.nowUs || _clock.monotonicUs - _items.begin()->second->latestUs >
                                       Corvax::kMicrosecondsPerSecond)) {
         TakeNext()->operator()();
      }
   }
   /// Removes the earliest item and returns its functor, like a thread that is about to call it.
   Corvax::Ref<Corvax::Functor<>> TakeNext()
   {
      GetDueUs();
      const auto item = _items.begin()->second;
      _items.erase(_items.begin());
      return std::exchange(item->functor, nullptr);
   }

private:
   struct Item : Corvax::ScheduledItem, Corvax::ObjectImpl {
      bool Cancel() override { return std::exchange(functor, nullptr) != nullptr; }
      bool IsPending() const override { return static_cast<bool>(functor); }
      Corvax::Ref<Corvax::Functor<>> functor;
      int64_t latestUs = 0; ///< monotonic
   };

   ManualClock& _clock;
   std::multimap<int64_t, Corvax::Ref<Item>> _items;
};
