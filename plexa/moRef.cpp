#include "plexa/managedObject.h"

namespace Plexa {

ManagedObject::~ManagedObject() = default;
MoRef::~MoRef() = default;

bool ManagedType::IsA(const ManagedType& other) const
{
   for (const ManagedType* type = this; type != nullptr; type = type->base) {
      if (type->name == other.name) {
         return true;
      }
   }
   return false;
}

} // namespace Plexa
