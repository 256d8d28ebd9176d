#pragma once

#include "linuxHost/hypervisor.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace LinuxHost {

/// A virtual machine's figures for one collection. A part is missing where its readings do not
/// enclose the collection's time.
struct VmFigures {
   int32_t startId = -1; ///< another number after each start of the virtual machine
   uint64_t usedUs = 0;
   std::vector<VcpuFigures> vcpus; ///< by number; empty: unknown
   std::vector<VmCardFigures> cards;
   std::optional<VmMemory> memory; ///< the newest reading, unless it is overdue
   std::vector<VmDiskFigures> disks;
};

/// Figures of the running virtual machines for one collection, by id. A machine whose basics are
/// missing is not in it.
struct VmSnapshot {
   std::map<std::string, VmFigures> vms;
};

class SnapshotSource {
public:
   virtual ~SnapshotSource() = default;
   /// For the collection that is running or the last one; null when the hypervisor has not answered
   /// for an interval.
   virtual std::shared_ptr<const VmSnapshot> GetSnapshot() const = 0;
   /// Never OFF: the caller knows the power state.
   virtual Quen::Vm::Freshness GetFreshness(const std::string& id) const = 0;
};

/// The last readings of each virtual machine's counters, and their values at the time that a
/// collection stands for.
///
/// Readings come at uneven times: one virtual machine's late because its monitor was busy, all of
/// them because the daemon was slow. A collection with the stamp T takes the counters at T - 3/4 of
/// an interval, interpolated between the readings before and after that time. So a counter that
/// grows steadily has a steady rate, whenever it was read; a collection may be late by a quarter of
/// an interval, a reading by half of one. Readings across a restart, or before and after a device
/// was replaced, do not enclose anything.
///
/// Time: readings have monotonic times. A wall clock that is set changes the stamps of collections
/// only. Locking: its own, a leaf; any thread may call.
class VmHistory : public SnapshotSource {
public:
   explicit VmHistory(int intervalSec);

   /// Adds the parts that are set. `noMonitor` says why the monitor's part is missing; empty where
   /// nobody asked for it or it is there.
   void Add(VmRecord record, const std::string& noMonitor = {});
   /// The hypervisor has given no answer at all; ends with the next Add.
   void SetSilent(const std::string& reason);
   /// Forgets all virtual machines but these, which run, and those with a recent reading: a
   /// hypervisor that has just started may not know all of them yet.
   void KeepOnly(const std::set<std::string>& ids);

   /// A collection begins: GetSnapshot returns its figures from now on.
   void BeginCollection();

   std::shared_ptr<const VmSnapshot> GetSnapshot() const override;
   Quen::Vm::Freshness GetFreshness(const std::string& id) const override;

private:
   template <class Figures>
   struct Reading {
      int64_t takenUs = 0;
      Figures figures;
   };
   /// The last two readings of a part.
   template <class Figures>
   struct Readings {
      std::optional<Reading<Figures>> older;
      std::optional<Reading<Figures>> newer;
      int64_t sinceUs = 0; // of the first reading after which none was missed
   };
   struct Vm {
      int32_t startId = -1;
      int64_t knownSinceUs = 0;
      Readings<VmBasics> basics;
      Readings<std::vector<VcpuFigures>> vcpus;
      Readings<VmMonitorFigures> monitor;
      std::string noMonitor;
   };

   template <class Figures>
   void AddReading(Readings<Figures>& readings, int64_t takenUs, std::optional<Figures>& figures);
   template <class Figures>
   bool IsCurrent(const Readings<Figures>& readings, int64_t nowUs) const;
   std::optional<VmFigures> MakeFigures(const Vm& vm, int64_t timeUs, int64_t nowUs) const;

   const int64_t _intervalUs;
   mutable std::mutex _mutex;
   std::map<std::string, Vm> _vms;
   std::optional<int64_t> _answeredUs; // monotonic time of the newest reading
   std::string _silence;
   std::shared_ptr<const VmSnapshot> _snapshot;
};

} // namespace LinuxHost
