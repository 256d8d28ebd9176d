#include "corvax/object.h"

namespace Corvax {

Object::~Object() = default;

ObjectImpl::~ObjectImpl() = default;

void ObjectImpl::Release() const noexcept
{
   // The release half orders this thread's writes before the count, the acquire half makes all
   // other threads' writes visible to the destructor.
   if (_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete this;
   }
}

} // namespace Corvax
