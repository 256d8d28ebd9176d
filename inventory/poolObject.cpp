#include "inventory/poolObject.h"

namespace Inventory {

using Corvax::MakeRef;
using Corvax::Ref;

PoolObject::PoolObject(const std::string& id, std::string name, Ref<Plexa::MoRef> parent)
   : _moRef(MakeRef<Plexa::MoRef>(Quen::ResourcePool::GetManagedType(), id)),
     _name(std::move(name)), _parent(std::move(parent))
{
}

PoolObject::~PoolObject() = default;

void PoolObject::GetChildPools(Ref<Plexa::DataArray<Plexa::MoRef>>& pools)
{
   pools = nullptr;
   const std::lock_guard guard(_mutex);
   if (_children.empty()) {
      return;
   }
   pools = MakeRef<Plexa::DataArray<Plexa::MoRef>>();
   pools->Reserve(_children.size());
   for (const Ref<Plexa::MoRef>& child : _children) {
      pools->Append(child);
   }
}

void PoolObject::AddChild(const Ref<Plexa::MoRef>& child)
{
   const std::lock_guard guard(_mutex);
   _children.push_back(child);
}

void PoolObject::RemoveChild(const std::string& id)
{
   const std::lock_guard guard(_mutex);
   std::erase_if(_children, [&id](const Ref<Plexa::MoRef>& child) { return child->GetId() == id; });
}

} // namespace Inventory
