#pragma once

#include "corvax/object.h"

#include <cstdint>
#include <vector>

namespace Metrix {

/// The stat ids in use: a growable vector with one bit per slot.
///
/// Invariant: no free slot lies below `_firstFreeSearchIx`.
/// Locking: none; used under the depot's lock.
/// Errors: AssertionException for an index above the size; the map is then unchanged.
class SlotUsageMap : public Corvax::ObjectImpl {
public:
   /// `size` slots, all free.
   explicit SlotUsageMap(int size);

   /// The lowest free slot, or the size if every slot is used. Marks nothing.
   int FindFirstFreeSlot();

   /// The highest used slot at or below the hint, or -1. A search that finds none leaves the hint
   /// at slot 0, and marking slots does not raise it from there: until slot 0 is used again, later
   /// searches fail too. On purpose.
   int FindLastUsedSlot();

   /// An index equal to the size appends one slot.
   void MarkSlotUsed(int ix);
   void MarkSlotFree(int ix);

   bool IsSlotUsed(int ix) const;
   int GetSize() const { return static_cast<int>(_usageVector.size()); }
   void Resize(int size);

private:
   std::vector<bool> _usageVector;
   int32_t _firstFreeSearchIx = 0;
   int32_t _lastUsedSearchIx = -1; ///< -1: unknown, the search starts at the top
};

} // namespace Metrix
