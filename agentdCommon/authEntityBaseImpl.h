#pragma once

#include "plexa/managedObject.h"

#include <string>

namespace AgentdCommon {

/// Base of managed objects under access control. Every caller of this agent is its administrator,
/// so it only holds the object's reference.
class AuthEntityBaseImpl : public virtual Plexa::ManagedObject, public Corvax::ObjectImpl {
public:
   Plexa::MoRef* GetMoRef() override { return _moRef.Get(); }

protected:
   AuthEntityBaseImpl(const Plexa::ManagedType& type, const std::string& id);
   ~AuthEntityBaseImpl() override;

private:
   const Corvax::Ref<Plexa::MoRef> _moRef;
};

} // namespace AgentdCommon
