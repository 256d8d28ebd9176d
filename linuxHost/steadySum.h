#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace LinuxHost {

/// A sum over counters that grows by what they grow, and by nothing else: one that joins, leaves or
/// begins anew neither makes it jump nor fall. The sum itself is made elsewhere; this yields what
/// has to be added to it.
///
/// Locking: none; one thread at a time.
class SteadySum {
public:
   using Counters = std::map<std::string, uint64_t>; ///< by a name that no two counters share

   /// To be added to the sum of these readings: 0 at first and for as long as the same counters
   /// grow. A counter that was absent in the reading before begins at its present value.
   int64_t GetCorrection(Counters readings);

private:
   Counters _last;
   uint64_t _sum = 0; // the corrected one
   bool _hasBegun = false;
};

} // namespace LinuxHost
