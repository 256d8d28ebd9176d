#pragma once

#include "corvax/object.h"

#include <cstdint>
#include <vector>

namespace Metrix {

/// Which stat ids of a depot are in use: a growable bit vector, one bit a slot.
///
/// Invariant: no free slot lies below `_firstFreeSearchIx`.
/// Locking: none of its own; used under the depot's lock.
/// Errors: an index above the size is an assertion; the map is unchanged.
class SlotUsageMap : public Corvax::ObjectImpl {
public:
   /// `size` slots, all free.
   explicit SlotUsageMap(int size);

   /// The lowest free slot; the size when every slot is used. Marks nothing.
   int FindFirstFreeSlot();

   /// The highest used slot at or below the hint, -1 when there is none. A search that fails leaves
   /// the hint at slot 0, and marking slots does not raise it from there (see MarkSlotUsed): until
   /// slot 0 is used again, later searches fail too. Kept on purpose.
   int FindLastUsedSlot();

   /// `ix` may equal the size, which appends one slot.
   void MarkSlotUsed(int ix);
   void MarkSlotFree(int ix);

   bool IsSlotUsed(int ix) const;
   int GetSize() const { return static_cast<int>(_usageVector.size()); }
   void Resize(int size);

private:
   std::vector<bool> _usageVector;
   int32_t _firstFreeSearchIx = 0;
   int32_t _lastUsedSearchIx = -1; ///< -1: not known, a search starts at the top
};

} // namespace Metrix
