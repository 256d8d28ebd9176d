#pragma once

#include "plexa/managedObject.h"

#include <string>

namespace AgentdCommon {

/// Base of managed objects that take part in access control. Every caller of this agent is its
/// administrator, so it keeps the object's identity and refuses nobody.
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
