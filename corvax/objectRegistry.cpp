#include "corvax/objectRegistry.h"

#include "corvax/lockable.h"

#include <map>

namespace Corvax {

namespace {

class ObjectRegistryImpl : public ObjectRegistry, public ObjectImpl {
public:
   void Register(const std::string& id, Ref<Object> object) override
   {
      const WriteGuard guard(_lock);
      if (id.empty() || !_objects.try_emplace(id, std::move(object)).second) {
         throw InvalidArgumentException("Cannot register an object as '" + id +
                                        "': the id is empty or in use");
      }
   }

   bool Unregister(const std::string& id) override
   {
      Ref<Object> last; // released after the lock, because its destructor may call the registry
      const WriteGuard guard(_lock);
      const auto found = _objects.find(id);
      if (found == _objects.end()) {
         return false;
      }
      last = found->second;
      _objects.erase(found);
      return true;
   }

   Ref<Object> Find(const std::string& id) const override
   {
      const ReadGuard guard(_lock);
      const auto found = _objects.find(id);
      return found == _objects.end() ? nullptr : found->second;
   }

   std::vector<std::pair<std::string, Ref<Object>>> GetAll() const override
   {
      const ReadGuard guard(_lock);
      return {_objects.begin(), _objects.end()};
   }

private:
   mutable ReaderWriterLock _lock;
   std::map<std::string, Ref<Object>> _objects;
};

} // namespace

ObjectRegistry::~ObjectRegistry() = default;

Ref<ObjectRegistry> NewObjectRegistry()
{
   return MakeRef<ObjectRegistryImpl>();
}

} // namespace Corvax
