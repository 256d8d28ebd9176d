#pragma once

#include "corvax/object.h"

#include <memory>
#include <mutex>
#include <shared_mutex>

namespace Corvax {

/// A recursive mutex that knows its holder: each Lock needs its Unlock.
class Mutex {
public:
   virtual ~Mutex();
   virtual void Lock() = 0;
   /// AssertionException when the calling thread does not hold it.
   virtual void Unlock() = 0;
   /// Whether the calling thread holds it.
   virtual bool IsLocked() const = 0;
};

std::unique_ptr<Mutex> NewMutex();

/// An object that callers lock around a call or a group of calls.
class LockableObject : public virtual Object {
public:
   virtual void Lock() = 0;
   /// AssertionException when the calling thread does not hold the lock.
   virtual void Unlock() = 0;
   /// Whether the calling thread holds the lock.
   virtual bool IsLocked() const = 0;

protected:
   ~LockableObject() override;
};

class LockableObjectImpl : public virtual LockableObject, public ObjectImpl {
public:
   void Lock() override { _mutex->Lock(); }
   void Unlock() override { _mutex->Unlock(); }
   bool IsLocked() const override { return _mutex->IsLocked(); }

protected:
   LockableObjectImpl();
   ~LockableObjectImpl() override;

private:
   const std::unique_ptr<Mutex> _mutex;
};

/// Locks a LockableObject, and holds a reference on it, for a scope.
class Locker {
public:
   explicit Locker(LockableObject* object) : _object(object) { _object->Lock(); }
   ~Locker() { _object->Unlock(); }
   Locker(const Locker&) = delete;
   Locker& operator=(const Locker&) = delete;

private:
   Ref<LockableObject> _object;
};

/// Any number of readers or one writer; locked by ReadGuard and WriteGuard.
using ReaderWriterLock = std::shared_mutex;
using ReadGuard = std::shared_lock<ReaderWriterLock>;
using WriteGuard = std::unique_lock<ReaderWriterLock>;

} // namespace Corvax
