#pragma once

#include "corvax/object.h"

#include <cstddef>

namespace Plexa {

/// An array of data objects or references as the API passes it: shared, absent if the reference to
/// it is null.
template <class T>
class DataArray : public Corvax::ObjectImpl {
public:
   void Reserve(size_t count) { _items.reserve(count); }
   void Append(Corvax::Ref<T> item) { _items.push_back(std::move(item)); }
   size_t GetSize() const { return _items.size(); }
   bool IsEmpty() const { return _items.empty(); }
   T* operator[](size_t index) const { return _items[index].Get(); }
   auto begin() const { return _items.begin(); }
   auto end() const { return _items.end(); }

private:
   Corvax::RefVector<T> _items;
};

} // namespace Plexa
