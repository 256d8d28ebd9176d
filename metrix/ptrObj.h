#pragma once

#include "corvax/object.h"

namespace Metrix {

/// Owner of one object that the kernel library handed out as a raw pointer: deletes it when it is
/// itself destroyed, on the stack or with its last reference, or is given another.
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
