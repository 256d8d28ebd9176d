#include "corvax/scheduler.h"

#include "corvax/exception.h"
#include "corvax/system.h"
#include "corvax/thread.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace Corvax {

namespace {

class ScheduledItemImpl;

/// The pending items of one timer thread, shared with the items.
struct TimerQueue {
   std::mutex mutex; // guards this struct and the items' state; nothing is called under it
   std::condition_variable wake;
   std::multimap<int64_t, Ref<ScheduledItemImpl>> items; // by due wall-clock time
   bool stopping = false;
};

class ScheduledItemImpl : public ScheduledItem, public ObjectImpl {
public:
   ScheduledItemImpl(std::shared_ptr<TimerQueue> queue, Ref<Functor<>> functor, int64_t dueUs,
                     int64_t latestUs)
      : _queue(std::move(queue)), _functor(std::move(functor)), _dueUs(dueUs), _latestUs(latestUs)
   {
   }

   bool Cancel() override
   {
      Ref<Functor<>>
         dropped; // released after the lock, because it may hold the last reference on an owner
      const std::lock_guard guard(_queue->mutex);
      if (!_functor) {
         return false;
      }
      const auto [first, last] = _queue->items.equal_range(_dueUs);
      _queue->items.erase(
         std::find_if(first, last, [this](const auto& entry) { return entry.second == this; }));
      dropped = Take();
      return true;
   }

   bool IsPending() const override
   {
      const std::lock_guard guard(_queue->mutex);
      return static_cast<bool>(_functor);
   }

   /// Moves the functor out of the item. Called with the queue locked.
   Ref<Functor<>> Take() { return std::exchange(_functor, nullptr); }

   int64_t GetLatestUs() const { return _latestUs; }

private:
   const std::shared_ptr<TimerQueue> _queue;
   Ref<Functor<>> _functor; // null once the item is no longer pending
   const int64_t _dueUs;
   const int64_t _latestUs; // monotonic time at which the delay has passed
};

class TimerThreadImpl : public TimerThread, public ObjectImpl {
public:
   TimerThreadImpl(const std::string& name, std::function<void(const TimerRun&)> observer)
      : _observer(std::move(observer))
   {
      _thread = StartThread(name, [this](const std::stop_token&) { Run(); });
   }

   ~TimerThreadImpl() override
   {
      TimerThreadImpl::Stop();
      if (_thread.joinable()) {
         _thread.detach(); // the last reference was released on this very thread
      }
   }

   Ref<ScheduledItem> ScheduleOnce(Ref<Functor<>> functor, int64_t delayUs) override
   {
      const int64_t dueUs = System::GetTime() + delayUs;
      const int64_t latestUs = System::GetMonotonicTime() + delayUs;
      auto item = MakeRef<ScheduledItemImpl>(_queue, std::move(functor), dueUs, latestUs);
      const std::lock_guard guard(_queue->mutex);
      Assert(!_queue->stopping, "the timer thread has not been stopped");
      _queue->items.emplace(dueUs, item);
      _queue->wake.notify_one();
      return item;
   }

   void Stop() override
   {
      std::vector<Ref<Functor<>>> dropped;
      {
         const std::lock_guard guard(_queue->mutex);
         _queue->stopping = true;
         for (auto& [due, item] : _queue->items) {
            dropped.push_back(item->Take());
         }
         _queue->items.clear();
      }
      _queue->wake.notify_one();
      if (_thread.joinable() && _thread.get_id() != std::this_thread::get_id()) {
         _thread.join();
      }
   }

private:
   // Nothing wakes a waiting thread when the wall clock is changed, so it looks at least this
   // often. One wake-up a second costs a few microseconds of CPU.
   static constexpr std::chrono::microseconds kLongestNap = std::chrono::seconds(1);

   /// The next functor that is due; sleeps until there is one. Null once the thread is to stop.
   static Ref<Functor<>> Next(TimerQueue& queue, int64_t& dueUs)
   {
      std::unique_lock lock(queue.mutex);
      while (!queue.stopping) {
         if (queue.items.empty()) {
            queue.wake.wait(lock);
            continue;
         }
         const auto first = queue.items.begin();
         const int64_t leftUs = first->first - System::GetTime();
         const int64_t overdueUs = System::GetMonotonicTime() - first->second->GetLatestUs();
         // A second of grace: small corrections of the wall clock must not make an item early.
         if (leftUs <= 0 || overdueUs > kMicrosecondsPerSecond) {
            dueUs = first->first;
            Ref<Functor<>> functor = first->second->Take();
            queue.items.erase(first);
            return functor;
         }
         queue.wake.wait_for(lock, std::min(std::chrono::microseconds(leftUs), kLongestNap));
      }
      return nullptr;
   }

   void Run()
   {
      const std::shared_ptr<TimerQueue> queue = _queue;
      const auto observer = _observer;
      System::SetThisThread(this);
      TimerRun run{};
      while (const Ref<Functor<>> functor = Next(*queue, run.dueUs)) {
         run.startUs = System::GetTime();
         run.error = Call(*functor);
         run.endUs = System::GetTime();
         {
            const std::lock_guard guard(queue->mutex);
            run.morePending = !queue->items.empty();
         }
         if (observer) {
            observer(run);
         }
      }
   }

   static std::string Call(Functor<>& functor)
   {
      try {
         functor();
         return {};
      } catch (const Exception& e) {
         return e.GetMessage();
      } catch (const std::exception& e) {
         return e.what();
      } catch (...) {
         return "unknown exception";
      }
   }

   const std::shared_ptr<TimerQueue> _queue = std::make_shared<TimerQueue>();
   const std::function<void(const TimerRun&)> _observer;
   std::jthread _thread;
};

} // namespace

ScheduledItem::~ScheduledItem() = default;
Scheduler::~Scheduler() = default;
TimerThread::~TimerThread() = default;

Ref<TimerThread> NewTimerThread(const std::string& name,
                                std::function<void(const TimerRun&)> observer)
{
   return MakeRef<TimerThreadImpl>(name, std::move(observer));
}

} // namespace Corvax
