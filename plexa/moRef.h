#pragma once

#include "corvax/object.h"

#include <string>
#include <string_view>

namespace Plexa {

/// A managed-object type: its name and its base type, null for none. Types are static data, one per
/// name.
struct ManagedType {
   std::string_view name;
   const ManagedType* base = nullptr;

   /// Whether this type is `other` or derives from it.
   bool IsA(const ManagedType& other) const;
};

/// A reference to a managed object: its type and its id. Immutable.
class MoRef : public Corvax::ObjectImpl {
public:
   /// `type` must outlive the reference.
   MoRef(const ManagedType& type, std::string id) : _type(type), _id(std::move(id)) {}

   const ManagedType& GetType() const { return _type; }
   const std::string& GetId() const { return _id; }
   bool IsA(const ManagedType& type) const { return _type.IsA(type); }

private:
   const ManagedType& _type;
   const std::string _id;

protected:
   ~MoRef() override;
};

} // namespace Plexa
