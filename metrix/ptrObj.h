#pragma once

#include "corvax/object.h"

namespace Metrix {

/// Owns an object that the kernel library returned as a raw pointer: deletes it in the destructor,
/// or when another pointer is assigned.
template <class T>
class PtrObj : public Corvax::ObjectImpl {
public:
   PtrObj() = default;
   explicit PtrObj(T* object) : _obj(object) {}
   ~PtrObj() override { delete _obj; }

   PtrObj& operator=(T* object)
   {
      if (_obj != object) {
         delete _obj;
         _obj = object;
      }
      return *this;
   }

   T* operator->() const { return _obj; }
   operator T*() const { return _obj; }

private:
   T* _obj = nullptr;
};

} // namespace Metrix
