#pragma once

#include "corvax/exception.h"
#include "corvax/object.h"

#include <string>

namespace Corvax {

/// The agent's objects by id. Locking: none needed; any thread may call.
class ObjectRegistry : public virtual Object {
public:
   /// InvalidArgumentException when the id is empty or in use.
   virtual void Register(const std::string& id, Ref<Object> object) = 0;
   /// False when there is no object of that id.
   virtual bool Unregister(const std::string& id) = 0;
   /// Null when there is none.
   virtual Ref<Object> Find(const std::string& id) const = 0;

   /// All objects with their ids, sorted by id.
   virtual std::vector<std::pair<std::string, Ref<Object>>> GetAll() const = 0;

   /// False, with `object` null, when there is none of that id or it is not a T.
   template <class T>
   bool TryLookupObject(const std::string& id, Ref<T>& object) const
   {
      object = RefCast<T>(Find(id));
      return static_cast<bool>(object);
   }

   /// NotFoundException when there is none of that id or it is not a T.
   template <class T>
   Ref<T> LookupObject(const std::string& id) const
   {
      Ref<T> object;
      if (!TryLookupObject(id, object)) {
         throw NotFoundException("No object of the requested type is registered as " + id);
      }
      return object;
   }

protected:
   ~ObjectRegistry() override;
};

Ref<ObjectRegistry> NewObjectRegistry();

} // namespace Corvax
