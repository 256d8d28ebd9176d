#pragma once

#include "bench/workload.h"

namespace Bench {

/// The order in which the stats were created, which is that of their rows, against the order in
/// which a run records them.
enum class RowOrder {
   AS_RECORDED,
   EVERY_FIFTH_VM_LATER, ///< the virtual machines that were there at first, then all others
   VM_BY_VM,             ///< the host and its pools, then one virtual machine after the other
   ENTITIES_SHUFFLED,
   SHUFFLED,
};

/// A depot that gets a sample of every stat, stamp after stamp, as a collector records them.
///
/// Errors: Exception if the depot cannot store them.
class Recording {
public:
   /// `plan` must outlive this object.
   Recording(const StatPlan& plan, Metrix::TimeStamp firstStamp = kFirstStamp)
      : _plan(plan), _nextStamp(firstStamp)
   {
   }

   void CreateDepot(const std::string& directory, const Metrix::JournalOptions& journal,
                    RowOrder order = RowOrder::AS_RECORDED);
   /// One that has all stats.
   void LoadDepot(const std::string& directory, const Metrix::JournalOptions& journal);

   void RecordNextStamp();
   /// Until each run finds what it finds after hours: as much in memory, and all rows written.
   void RecordUntilSteady();
   /// Number of stamps that this takes.
   static unsigned CountUntilSteady(const Metrix::JournalOptions& journal);

   Metrix::StatsDepot& GetDepot() const { return *_depot; }
   /// Of the depot's lock, since the last call.
   LockMeter::Holds TakeHolds() { return _lockMeter.Take(); }

private:
   const StatPlan& _plan;
   const QuietAgent _agent;
   Metrix::TimeStamp _nextStamp;
   SteppedTime _time{_nextStamp};
   LockMeter _lockMeter;
   Metrix::JournalOptions _journal;
   Corvax::Ref<Metrix::StatsDepot> _depot;
};

/// Leaves a depot that is steady, up to the stamp `newest`, as a killed process leaves it.
void RecordAndKill(const StatPlan& plan, const std::string& directory,
                   const Metrix::JournalOptions& journal, Metrix::TimeStamp newest);

} // namespace Bench
