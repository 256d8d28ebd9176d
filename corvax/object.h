#pragma once

#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

namespace Corvax {

/// Base of every object that parts of the agent share.
///
/// Ownership: counted references, held through Ref<T>. An object starts with a count of zero and
/// is destroyed when the last reference is released.
class Object {
public:
   Object(const Object&) = delete;
   Object& operator=(const Object&) = delete;

   virtual void AddRef() const noexcept = 0;
   virtual void Release() const noexcept = 0;

protected:
   Object() = default;
   virtual ~Object();
};

/// The reference count behind Object. Locking: none needed, the count is atomic.
class ObjectImpl : public virtual Object {
public:
   void AddRef() const noexcept override { _refCount.fetch_add(1, std::memory_order_relaxed); }
   void Release() const noexcept override;

protected:
   ObjectImpl() = default;
   ~ObjectImpl() override;

private:
   mutable std::atomic<int32_t> _refCount{0};
};

/// Intrusive handle on an Object: holds one reference for as long as it points to it.
template <class T>
class Ref {
public:
   Ref() noexcept = default;
   Ref(std::nullptr_t) noexcept {}
   Ref(T* object) noexcept : _object(object)
   {
      if (_object) {
         _object->AddRef();
      }
   }
   Ref(const Ref& other) noexcept : Ref(other._object) {}
   Ref(Ref&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}
   template <class U>
      requires std::convertible_to<U*, T*>
   Ref(const Ref<U>& other) noexcept : Ref(static_cast<T*>(other.Get()))
   {
   }
   ~Ref()
   {
      if (_object) {
         _object->Release();
      }
   }

   Ref& operator=(Ref other) noexcept
   {
      std::swap(_object, other._object);
      return *this;
   }

   T* Get() const noexcept { return _object; }
   T* operator->() const noexcept { return _object; }
   T& operator*() const noexcept { return *_object; }
   explicit operator bool() const noexcept { return _object != nullptr; }

   friend bool operator==(const Ref& a, const Ref& b) noexcept { return a._object == b._object; }
   friend bool operator==(const Ref& a, const T* b) noexcept { return a._object == b; }

private:
   T* _object = nullptr;
};

template <class T>
using RefVector = std::vector<Ref<T>>;

/// Creates a T and takes the first reference on it.
template <class T, class... Args>
Ref<T> MakeRef(Args&&... args)
{
   return Ref<T>(new T(std::forward<Args>(args)...));
}

/// The object as a T; null when it is not a T, or null.
template <class T, class U>
Ref<T> RefCast(const Ref<U>& object)
{
   return Ref<T>(dynamic_cast<T*>(object.Get()));
}

} // namespace Corvax
