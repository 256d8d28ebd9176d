#include "bench/lockMeter.h"

#include "bench/meters.h"
#include "corvax/system.h"

#include <algorithm>

namespace Bench {

class LockMeter::ObservedMutex : public Corvax::Mutex {
public:
   explicit ObservedMutex(Holds& holds) : _holds(holds) {}

   void Lock() override
   {
      _mutex->Lock();
      if (_depth++ == 0) {
         _lockedUs = GetThreadCpuUs();
      }
   }
   void Unlock() override
   {
      if (--_depth == 0) {
         const double heldUs = GetThreadCpuUs() - _lockedUs;
         _holds.longestUs = std::max(_holds.longestUs, heldUs);
         _holds.totalUs += heldUs;
      }
      _mutex->Unlock();
   }
   bool IsLocked() const override { return _mutex->IsLocked(); }

private:
   Holds& _holds; // this and the following: guarded by the mutex
   int _depth = 0;
   double _lockedUs = 0;
   const std::unique_ptr<Corvax::Mutex> _mutex = Corvax::NewMutex();
};

/// The real file system, but observed locks.
class LockMeter::Factory : public Corvax::SystemFactory {
public:
   explicit Factory(Holds& holds) : _holds(holds) { Corvax::System::SetFactory(this); }
   ~Factory() override { Corvax::System::SetFactory(nullptr); }

   std::unique_ptr<Corvax::Mutex> CreateMutex() override
   {
      return std::make_unique<ObservedMutex>(_holds);
   }

   Corvax::Ref<Corvax::FileHandle> NewFileHandle() override { return _real->NewFileHandle(); }
   uint64_t GetFileSize(const std::string& path) override { return _real->GetFileSize(path); }
   bool Exists(const std::string& path) override { return _real->Exists(path); }
   void CreateDirectory(const std::string& path) override { _real->CreateDirectory(path); }
   void Rename(const std::string& from, const std::string& to) override { _real->Rename(from, to); }
   std::string NewScratchDirectory() override { return _real->NewScratchDirectory(); }
   void Remove(const std::string& path) override { _real->Remove(path); }
   void SyncDirectory(const std::string& path) override { _real->SyncDirectory(path); }
   std::vector<std::string> ListDirectory(const std::string& path) override
   {
      return _real->ListDirectory(path);
   }
   std::unique_ptr<Corvax::FileLock> Lock(const std::string& path) override
   {
      return _real->Lock(path);
   }
   int64_t GetLockHolder(const std::string& path) override { return _real->GetLockHolder(path); }

private:
   Holds& _holds;
   const std::unique_ptr<Corvax::SystemFactory> _real = Corvax::NewPosixFactory();
};

std::unique_ptr<Corvax::SystemFactory> LockMeter::Install()
{
   return std::make_unique<Factory>(_holds);
}

void RunHolds::Add(const LockMeter::Holds& run, bool rollsUp)
{
   usualUs = rollsUp ? usualUs : std::max(usualUs, run.longestUs);
   anyUs = std::max(anyUs, run.longestUs);
   totalUs += run.totalUs;
   ++runs;
}

} // namespace Bench
