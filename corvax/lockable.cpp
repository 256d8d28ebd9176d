#include "corvax/lockable.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace Corvax {

namespace {

class MutexImpl : public Mutex {
public:
   void Lock() override
   {
      if (!IsLocked()) {
         _mutex.lock();
         _holder.store(std::this_thread::get_id(), std::memory_order_relaxed);
      }
      ++_depth;
   }

   void Unlock() override
   {
      Assert(IsLocked(), "the thread that unlocks holds the lock");
      if (--_depth == 0) {
         _holder.store(std::thread::id(), std::memory_order_relaxed);
         _mutex.unlock();
      }
   }

   // Relaxed is enough: only the calling thread ever stores its own id.
   bool IsLocked() const override
   {
      return _holder.load(std::memory_order_relaxed) == std::this_thread::get_id();
   }

private:
   std::mutex _mutex;
   std::atomic<std::thread::id> _holder{};
   int _depth = 0;
};

} // namespace

LockableObject::~LockableObject() = default;
Mutex::~Mutex() = default;

std::unique_ptr<Mutex> NewMutex()
{
   return std::make_unique<MutexImpl>();
}

LockableObjectImpl::LockableObjectImpl() : _mutex(System::GetFactory().CreateMutex()) {}

LockableObjectImpl::~LockableObjectImpl() = default;

} // namespace Corvax
