#include "metrix/slotUsageMap.h"

#include "corvax/exception.h"

#include <algorithm>

namespace Metrix {

namespace {

constexpr char kIndexInRange[] = "the slot index does not exceed the slot map's size";

} // namespace

SlotUsageMap::SlotUsageMap(int size) : _usageVector(static_cast<size_t>(size), false) {}

int SlotUsageMap::FindFirstFreeSlot()
{
   const auto from = _usageVector.begin() + std::min(_firstFreeSearchIx, GetSize());
   const auto found = std::find(from, _usageVector.end(), false);
   _firstFreeSearchIx = static_cast<int32_t>(found - _usageVector.begin());
   return _firstFreeSearchIx;
}

int SlotUsageMap::FindLastUsedSlot()
{
   const int top = GetSize() - 1; // below the hint of 0 if there are no slots
   int ix = _lastUsedSearchIx < 0 ? top : std::min(_lastUsedSearchIx, top);
   while (ix >= 0 && !_usageVector[static_cast<size_t>(ix)]) {
      --ix;
   }
   _lastUsedSearchIx = std::max(ix, 0);
   return ix;
}

void SlotUsageMap::MarkSlotUsed(int ix)
{
   Corvax::Assert(ix <= GetSize(), kIndexInRange);
   if (ix == GetSize()) {
      _usageVector.push_back(true);
   } else {
      _usageVector[static_cast<size_t>(ix)] = true;
   }
   // With a hint of -1 the search starts at the top anyway. One of 0 stays, on purpose.
   if (_lastUsedSearchIx >= 1 && ix > _lastUsedSearchIx) {
      _lastUsedSearchIx = ix;
   }
}

void SlotUsageMap::MarkSlotFree(int ix)
{
   Corvax::Assert(ix <= GetSize(), kIndexInRange);
   if (ix == GetSize()) {
      _usageVector.push_back(false);
   } else {
      _usageVector[static_cast<size_t>(ix)] = false;
   }
   _firstFreeSearchIx = std::min(_firstFreeSearchIx, ix);
}

bool SlotUsageMap::IsSlotUsed(int ix) const
{
   Corvax::Assert(ix <= GetSize(), kIndexInRange);
   return ix < GetSize() && _usageVector[static_cast<size_t>(ix)];
}

void SlotUsageMap::Resize(int size)
{
   _usageVector.resize(static_cast<size_t>(size), false);
   if (_lastUsedSearchIx >= size) {
      _lastUsedSearchIx = size - 1;
   }
   _firstFreeSearchIx = std::min(_firstFreeSearchIx, size);
}

} // namespace Metrix
