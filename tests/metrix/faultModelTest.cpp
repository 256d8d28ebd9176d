// Fails every operation on the disk in turn. The depot must invent nothing, recover, and, with a
// journal, lose nothing that it accepted.

#include "corvax/exception.h"
#include "tests/metrix/diskFixture.h"
#include "tests/metrix/scriptedHost.h"

#include <cerrno>
#include <functional>
#include <set>

namespace {

using namespace Metrix;
using Corvax::Ref;
using Name = ModelDepot::Name;

constexpr int kStats = 8; ///< four of each of two entities

Name NameOf(int index)
{
   return {ScriptedHost::EntityName(index / 4), ScriptedHost::StatName(index % 4)};
}

StatVal ValueAt(TimeStamp ts, int index)
{
   return ts * 1000 + static_cast<StatVal>(index);
}

/// Collects while the disk may fail, and leaves out what is refused.
struct StrugglingHost {
   TimeStamp now = 1000000;
   int run = 0;
   bool mayFail = false;
   std::map<Name, Samples> accepted; ///< raw samples since the stat was created
   std::set<Name> doubtful;          ///< stats whose deletion failed

   bool Attempt(const std::function<void()>& action) const
   {
      try {
         action();
         return true;
      } catch (const Corvax::Exception& e) {
         const bool isAssertion = dynamic_cast<const Corvax::AssertionException*>(&e) != nullptr;
         const bool isShort = e.GetMessage().find("written whole") != std::string::npos;
         EXPECT_TRUE(mayFail && (!isAssertion || isShort)) << e.GetMessage();
         return false;
      }
   }

   void Collect(StatsDepot& depot)
   {
      ++run;
      now += 10;
      const Corvax::Locker lock(&depot);
      for (int index = 0; index < kStats; ++index) {
         const bool isGone = index >= 4 && (run % 8 == 4 || run % 8 == 5);
         if (isGone || (index == 1 && run % 8 == 6)) {
            Delete(depot, NameOf(index));
         }
         if (!isGone) {
            Attempt([&] { Add(depot, NameOf(index), index); });
         }
      }
      Attempt([&] { depot.Flush(); });
   }

private:
   void Delete(StatsDepot& depot, const Name& name)
   {
      accepted.erase(name);
      doubtful.insert(name);
      if (Attempt([&] { depot.DeleteStat(name.first, name.second); })) {
         doubtful.erase(name);
      }
   }

   void Add(StatsDepot& depot, const Name& name, int index)
   {
      if (!depot.AddSample(name.first, name.second, now, ValueAt(now, index), 0)) {
         EXPECT_TRUE(accepted[name].empty() || doubtful.contains(name)) << name.second;
         depot.CreateStat(name.first, name.second, StatsDepot::STATTYPE_ABSOLUTE, 1,
                          ScriptedHost::RollupsOf(index % 4));
         accepted[name].clear();
         doubtful.erase(name);
         ASSERT_TRUE(depot.AddSample(name.first, name.second, now, ValueAt(now, index), 0));
      }
      accepted[name].emplace_back(now, ValueAt(now, index));
   }
};

/// The samples that a depot shows although they were never there.
Samples FindInvented(const Picture& picture)
{
   Samples invented;
   for (int index = 0; index < kStats; ++index) {
      const auto [entityId, statName] = NameOf(index);
      for (const auto& [key, samples] : picture) {
         const auto& [entity, stat, level, rollup] = key;
         if (entity != entityId || stat != statName) {
            continue;
         }
         const bool isSum = rollup == StatsDepot::ROLLUP_SUM;
         for (const auto& [ts, value] : samples) {
            const StatVal least = ValueAt(level == 0 ? ts : ts - 40, index);
            const StatVal most = ValueAt(ts, index) * (isSum ? 5 : 1);
            const bool isOfStat =
               isSum || rollup == StatsDepot::ROLLUP_AVERAGE || value % 1000 == ValueAt(0, index);
            if (value < least || value > most || !isOfStat) {
               invented.emplace_back(ts, value);
            }
         }
      }
   }
   return invented;
}

struct Fault {
   const char* name;
   uint32_t classes; ///< 0: from one run on there is no more room
   int reason;
   JournalOptions journal;
   bool isNew = false; ///< the depot
   bool reverts = false;
};

class FaultModelTest : public DiskTest<Fault> {
protected:
   FaultModelTest()
   {
      if (GetParam().isNew) {
         return;
      }
      DiskModel files(_start);
      const Ref<StatsDepot> depot = Open(files);
      for (int run = 0; run < 65; ++run) {
         Collect(*depot, _host);
      }
      _start = files.disk;
      _atStart = PictureOf(*depot);
   }

   ~FaultModelTest() override { std::cout << _faults << " faults\n"; } // for soak

   /// Collects while operations fail, and after that. False if there are fewer operations.
   bool Endure(uint64_t first, uint64_t count)
   {
      SCOPED_TRACE("operation " + std::to_string(first) + " fails, " + std::to_string(count) +
                   " in all");
      ++_faults;
      const Fault& fault = GetParam();
      const DiskModel::Fault failing{fault.classes, first, count, fault.reason, fault.reverts};
      LoadTwice(failing);
      DiskModel files(_start);
      const bool isAfterLoad = fault.reason == EIO && !fault.isNew; // it costs the journal
      files.fault = isAfterLoad ? DiskModel::Fault{} : failing;
      StrugglingHost host = _host;
      host.mayFail = true;
      Ref<StatsDepot> depot = Open(files);
      files.fault = isAfterLoad ? failing : files.fault;
      Struggle(files, host, *depot);
      const bool isHit = fault.classes == 0 ? first < kRuns : files.fault.seen >= first;
      files.fault = {};
      host.mayFail = false;
      if (IsStraight()) { // it need not have what it got
         std::ranges::for_each(host.accepted, [](auto& series) { series.second.clear(); });
      }
      for (int run = 0; run < 3; ++run) {
         Collect(*depot, host);
      }
      EXPECT_EQ(depot->GetTrouble(), "");
      const Picture shown = PictureOf(*depot);
      CheckHas(shown, host.accepted, host.doubtful);
      depot = nullptr;
      if (!IsStraight()) {
         EXPECT_EQ(FindForeign(PictureAfterPowerCut(files.disk, false), shown, shown), "");
      }
      return isHit;
   }

private:
   static constexpr uint64_t kRuns = 12;

   static bool IsStraight() { return GetParam().journal.checkpointSec == 0; }

   void Collect(StatsDepot& depot, StrugglingHost& host)
   {
      host.Collect(depot);
      Advance(host.now);
   }

   /// Loads or creates the depot; the third attempt succeeds.
   Ref<StatsDepot> Open(DiskModel& files)
   {
      for (int attempt = 0;; ++attempt) {
         files.fault.count = attempt < 2 ? files.fault.count : 0;
         const Ref<StatsDepot> depot = New();
         try {
            if (_atStart.empty()) {
               ScriptedHost().Create(*depot);
            } else {
               depot->Load();
            }
            return depot;
         } catch (const Corvax::Exception& e) {
            EXPECT_LT(attempt, 2) << e.GetMessage();
         }
      }
   }

   /// Loading changes nothing, whatever fails.
   void LoadTwice(const DiskModel::Fault& failing)
   {
      if (GetParam().isNew) {
         return;
      }
      DiskModel files(_start);
      files.fault = failing;
      try {
         New()->Load();
      } catch (const Corvax::Exception&) { // as planned
      }
      files.fault = {};
      const Ref<StatsDepot> depot = New();
      depot->Load();
      EXPECT_EQ(FindForeign(PictureOf(*depot), _atStart, _atStart), "");
   }

   /// Collects, and looks what a power cut after one of the runs would leave.
   void Struggle(DiskModel& files, StrugglingHost& host, StatsDepot& depot)
   {
      auto safe = host.accepted;
      const uint64_t cutAfter = Below(kRuns);
      for (uint64_t run = 0; run < kRuns; ++run) {
         const bool isFull = files.fault.classes == 0 && run >= files.fault.first &&
                             run - files.fault.first < files.fault.count;
         files.capacityBytes = isFull ? files.disk.GetUsedBytes() + 1000 : UINT64_MAX;
         Collect(depot, host);
         if (run == 5) {
            host.Attempt([&] { depot.Checkpoint(); });
         }
         safe = depot.GetTrouble().empty() ? host.accepted : safe;
         if (run == cutAfter && !IsStraight()) {
            for (auto& [name, samples] : safe) { // without those of deleted stats
               std::erase_if(samples, [&](const auto& sample) {
                  return std::ranges::count(host.accepted[name], sample) == 0;
               });
            }
            CheckHas(PictureAfterPowerCut(files.disk, true), safe, host.doubtful);
         }
      }
      files.capacityBytes = UINT64_MAX;
   }

   Picture PictureAfterPowerCut(const Disk& disk, bool keepsSome)
   {
      std::vector<Disk::Fate> fates(disk.CountPending(), Disk::LOST);
      if (keepsSome) {
         std::ranges::generate(fates, [&] { return static_cast<Disk::Fate>(Below(3)); });
      }
      const DiskModel files(disk.CutPower(fates, ".journal."));
      const Ref<StatsDepot> depot = New();
      depot->Load();
      return PictureOf(*depot);
   }

   /// The samples are there, as far as their columns are, and nothing is there that never was.
   static void CheckHas(const Picture& shown, const std::map<Name, Samples>& accepted,
                        const std::set<Name>& doubtful)
   {
      EXPECT_EQ(FindInvented(shown), Samples());
      const auto columns = shown.find({"", "", 0, 0});
      for (const auto& [name, samples] : accepted) {
         if (samples.empty() || doubtful.contains(name)) {
            continue;
         }
         const auto found = shown.find({name.first, name.second, 0, 0});
         ASSERT_NE(found, shown.end()) << name.first << " " << name.second;
         Samples missing;
         std::ranges::set_difference(samples, found->second, std::back_inserter(missing));
         std::erase_if(missing, [&](const auto& sample) {
            return sample.first < columns->second.front().first;
         });
         EXPECT_EQ(missing, Samples()) << name.first << " " << name.second;
      }
   }

   uint64_t _faults = 0;
   Disk _start = NewDisk(4096);
   Picture _atStart; ///< empty if there is no depot
   StrugglingHost _host;
};

TEST_P(FaultModelTest, ADepotRecoversAndInventsNothing)
{
   const uint64_t step = std::getenv("METRIX_CRASH_STATES") ? 1 : 4;
   for (const uint64_t count : {uint64_t{1}, 2 + Below(20), UINT64_MAX}) {
      uint64_t first = 1;
      while (Endure(first, count) && !HasFailure()) {
         first += count == 1 ? 1 : 1 + Below(step);
      }
      EXPECT_GT(first, 3U) << "operations that can fail";
   }
}

constexpr JournalOptions kStraight{};
constexpr JournalOptions kJournal{300, 1};
constexpr uint32_t kSpace = DiskModel::WRITE | DiskModel::NAME | DiskModel::RESERVE;
constexpr uint32_t kAll = kSpace | DiskModel::OPEN | DiskModel::READ | DiskModel::FLUSH;

INSTANTIATE_TEST_SUITE_P(
   Faults, FaultModelTest,
   testing::Values(Fault{"straightError", kAll, EIO, kStraight},
                   Fault{"straightFull", kSpace, ENOSPC, kStraight},
                   Fault{"straightDescriptors", DiskModel::OPEN, EMFILE, kStraight},
                   Fault{"straightShortWrite", DiskModel::WRITE, 0, kStraight},
                   Fault{"error", kAll, EIO, kJournal},
                   Fault{"readError", DiskModel::READ, EIO, kJournal},
                   Fault{"full", kSpace, ENOSPC, kJournal}, Fault{"noRoom", 0, ENOSPC, kJournal},
                   Fault{"descriptors", DiskModel::OPEN, EMFILE, kJournal},
                   Fault{"flush", DiskModel::FLUSH, EIO, kJournal},
                   Fault{"flushReverts", DiskModel::FLUSH, EIO, kJournal, false, true},
                   Fault{"shortWrite", DiskModel::WRITE, 0, kJournal},
                   Fault{"creationError", kAll, EIO, kJournal, true},
                   Fault{"creationFlush", DiskModel::FLUSH, EIO, kJournal, true},
                   Fault{"creationFull", kSpace, ENOSPC, kJournal, true},
                   Fault{"creationNoRoom", 0, ENOSPC, kJournal, true}),
   [](const auto& each) { return std::string(each.param.name); });

} // namespace
