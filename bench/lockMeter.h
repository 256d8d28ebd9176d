#pragma once

#include "corvax/file.h"

#include <functional>
#include <memory>
#include <utility>

namespace Bench {

/// Measures how long the locks of objects are held: the CPU time of the thread that holds them, so
/// that neither waits for the disk nor other load on the machine count. Also sees what an object
/// does while it unlocks, and when it takes its lock again by itself.
class LockMeter {
public:
   struct Holds {
      double longestUs = 0;
      double totalUs = 0;
   };

   /// Calls `create` and returns its result. The locks created during the call are measured; they
   /// must not outlive this object.
   template <class Create>
   auto Observe(const Create& create)
   {
      const std::unique_ptr<Corvax::SystemFactory> factory = Install();
      return create();
   }

   /// All holds since the last call.
   Holds Take() { return std::exchange(_holds, {}); }

private:
   class ObservedMutex;
   class Factory;

   std::unique_ptr<Corvax::SystemFactory> Install();

   Holds _holds;
};

/// Holds of a lock in one run after the other.
struct RunHolds {
   void Add(const LockMeter::Holds& run, bool rollsUp);
   double GetMeanTotalUs() const { return totalUs / runs; }

   double usualUs = 0; ///< the longest in runs that roll nothing up
   double anyUs = 0;   ///< the longest of all
   double totalUs = 0;
   unsigned runs = 0;
};

} // namespace Bench
