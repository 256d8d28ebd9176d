#pragma once

#include "plexa/moRef.h"

namespace Plexa {

/// An object that the management API addresses by reference.
class ManagedObject : public virtual Corvax::Object {
public:
   virtual MoRef* GetMoRef() = 0;

protected:
   ~ManagedObject() override;
};

} // namespace Plexa
