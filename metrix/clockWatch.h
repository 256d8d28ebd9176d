#pragma once

#include <cstdint>
#include <optional>

namespace Metrix {

/// Decides, each time that a run is due, whether the wall clock can be trusted with one.
///
/// - Never a second run for a boundary, or one for an earlier boundary than the last run's.
/// - A clock that was set back a little is waited for. After a large step, the columns ahead of it
///   are in the way.
/// - A clock that leaps ahead must stay there before columns are spent on it.
///
/// Locking: none; used under the collector's lock.
class ClockWatch {
public:
   /// Both clocks at one moment, in microseconds.
   struct Moment {
      int64_t wallUs;
      int64_t monotonicUs;
   };

   enum class Verdict {
      RUN,
      WAIT,    ///< until the clock has passed the newest boundary
      GIVE_UP, ///< give up the columns from the boundary on, then run
      HOLD,    ///< until a later run finds the clock still ahead
   };

   /// Collection starts; `newestSec` is the newest column there is, if any.
   void Start(std::optional<int64_t> newestSec);

   Verdict Judge(const Moment& now, int64_t intervalSec);
   /// A run takes place.
   void Accept(const Moment& now, int64_t intervalSec);

   static int64_t GetBoundary(const Moment& now, int64_t intervalSec);
   /// That of the last run, or the newest column before the first run.
   std::optional<int64_t> GetNewest() const { return _newestSec; }

private:
   bool IsLeap(const Moment& now, int64_t intervalSec);

   std::optional<int64_t> _newestSec;
   std::optional<Moment> _last; ///< the last run
   std::optional<Moment> _leap; ///< when the clock was first seen ahead of it
};

} // namespace Metrix
