#pragma once

#include "quen/inventory.h"

#include <mutex>
#include <string>

namespace Inventory {

/// A resource pool of any backend. Locking: its own, a leaf.
class PoolObject : public Quen::ResourcePool, public Corvax::ObjectImpl {
public:
   /// `id` is at most kMaxIdBytes long; `parent` is null for the root pool.
   PoolObject(const std::string& id, std::string name, Corvax::Ref<Plexa::MoRef> parent);
   ~PoolObject() override;

   Plexa::MoRef* GetMoRef() override { return _moRef.Get(); }
   const std::string& GetId() const { return _moRef->GetId(); }
   std::string GetName() override { return _name; }
   Corvax::Ref<Plexa::MoRef> GetParent() override { return _parent; }
   void GetChildPools(Corvax::Ref<Plexa::DataArray<Plexa::MoRef>>& pools) override;

   void AddChild(const Corvax::Ref<Plexa::MoRef>& child);
   void RemoveChild(const std::string& id);

private:
   const Corvax::Ref<Plexa::MoRef> _moRef;
   const std::string _name;
   const Corvax::Ref<Plexa::MoRef> _parent;
   std::mutex _mutex;
   Corvax::RefVector<Plexa::MoRef> _children;
};

} // namespace Inventory
