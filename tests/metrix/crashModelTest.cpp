// Ends a depot's process and cuts its power at every change of the disk, and compares the depot
// that is found then with a naive model.

#include "corvax/exception.h"
#include "tests/metrix/diskFixture.h"
#include "tests/metrix/scriptedHost.h"

#include <sstream>

namespace {

using namespace Metrix;
using Corvax::Ref;

/// A stretch of a process's life: the disk that it found, all changes of the disk, and the states
/// that the depot had.
struct Recording {
   struct State {
      size_t end; ///< number of changes when it was finished
      Picture picture;
      TimeStamp now;
      int run;
      bool isNew;
   };

   Disk start;
   std::vector<Disk::Operation> changes;
   std::vector<State> states; ///< the first one is that of the start
};

struct Mode {
   const char* name;
   JournalOptions journal;
   bool isKill; ///< otherwise a power cut
   size_t grain;
   uint64_t percent; ///< of the changes after which there is a crash
};

class CrashModelTest : public DiskTest<Mode> {
protected:
   static constexpr int kRuns = 120;

   ~CrashModelTest() override
   {
      std::cout << _crashes << (GetParam().isKill ? " kills" : " power cuts") << "\n"; // for soak
   }

   /// Collects for some runs, in the depot of a disk or in a new one.
   Recording Record(const Disk& start, ScriptedHost host, int runs)
   {
      Recording recording{start, {}, {}};
      DiskModel files(start);
      const auto finish = [&] {
         recording.states.push_back(
            {files.log.size(), PictureOf(host.model), host.now, host.run, host.isNew});
      };
      finish();
      Ref<StatsDepot> depot = New();
      if (host.isNew) {
         host.Create(*depot);
         finish();
      } else {
         depot->Load();
      }
      for (int i = 0; i < runs && !HasFailure(); ++i) {
         Advance(host.now + 10);
         host.Collect(*depot);
         if (runs <= kRuns) { // else there is no crash
            finish();
         }
         if (host.run % 40 == 35) {
            depot->Checkpoint();
         }
         if (host.run % 40 == 27) {
            depot = nullptr; // its lock, too
            depot = New();
            depot->Load();
            host.model.Reload();
         }
      }
      const Picture shown = PictureOf(*depot);
      const Picture wanted = PictureOf(host.model);
      EXPECT_EQ(FindForeign(shown, wanted, wanted), "");
      recording.changes = std::move(files.log);
      return recording;
   }

   /// Crashes after each change of the disk.
   void CrashEverywhere(const Recording& recording)
   {
      Disk disk = recording.start;
      const char* const factor = std::getenv("METRIX_CRASH_STATES");
      const uint64_t percent =
         GetParam().percent * (factor ? std::strtoull(factor, nullptr, 10) : 1);
      size_t state = 0;
      for (size_t i = 0; i <= recording.changes.size() && !HasFailure(); ++i) {
         for (uint64_t left = percent + Below(100); left >= 100 && !HasFailure(); left -= 100) {
            CrashAt(recording, disk, i, state);
         }
         if (i < recording.changes.size()) {
            disk.Apply(recording.changes[i]);
         }
         if (GetParam().isKill && i % 64 == 0) {
            disk = disk.Kill(); // else the changes that are pending become ever more
         }
         while (state + 1 < recording.states.size() && recording.states[state + 1].end <= i + 1) {
            ++state;
         }
      }
   }

private:
   /// Crashes with that many changes done, while that state was the last one finished.
   void CrashAt(const Recording& recording, const Disk& disk, size_t changes, size_t state)
   {
      ++_crashes;
      const auto& before = recording.states[state];
      const auto& after = recording.states[std::min(state + 1, recording.states.size() - 1)];
      const bool isMidway = changes < recording.changes.size();
      std::ostringstream where;
      where << "crash after " << changes << " changes of the disk, run " << before.run;
      const Disk left = Crash(disk, isMidway ? &recording.changes[changes] : nullptr, where);
      SCOPED_TRACE(where.str());
      ScriptedHost host{ModelOf({}), after.now, after.run, false};
      if (!Reopen(left, before, after, host)) {
         return;
      }
      if (Below(5) == 0 || host.isNew) {
         const Recording more = Record(left, host, 3);
         const size_t end = Below(more.changes.size() + 1);
         size_t last = 0;
         Disk then = more.start;
         for (size_t i = 0; i < end; ++i) {
            then.Apply(more.changes[i]);
         }
         while (last + 1 < more.states.size() && more.states[last + 1].end <= end) {
            ++last;
         }
         CrashAt(more, then, end, last);
      } else if (Below(100) == 0) {
         Record(left, host, 400);
      }
   }

   Disk Crash(Disk disk, const Disk::Operation* next, std::ostream& where)
   {
      constexpr uint64_t kPage = 4096;
      if (!GetParam().isKill) {
         const std::vector<Disk::Fate> fates = ChooseFates(disk.CountPending());
         where << ", pending ";
         for (const Disk::Fate fate : fates) {
            where << "-+*"[fate];
         }
         return disk.CutPower(fates, ".journal.");
      }
      if (next && next->kind == Disk::Operation::WRITE) {
         Disk::Operation part = *next;
         const uint64_t end = part.offset + part.bytes.size();
         const uint64_t pages = (end - 1) / kPage - part.offset / kPage;
         const uint64_t cut = (part.offset / kPage + Below(pages + 1)) * kPage;
         if (cut > part.offset) {
            part.bytes.resize(cut - part.offset);
            disk.Apply(part);
            where << ", cut at " << cut;
         }
      }
      return disk.Kill();
   }

   std::vector<Disk::Fate> ChooseFates(size_t pending)
   {
      const uint64_t kind = pending == 0 ? 0 : Below(6);
      std::vector<Disk::Fate> fates(pending, kind % 2 == 0 ? Disk::LOST : Disk::KEPT);
      if (kind >= 4) {
         std::ranges::generate(fates, [&] {
            return Below(8) < 3 ? Disk::LOST : Below(5) < 3 ? Disk::KEPT : Disk::GARBAGE;
         });
      } else if (kind >= 2) { // one alone is written, or lost
         fates[Below(pending)] = kind == 2 ? Disk::KEPT : Disk::LOST;
      }
      return fates;
   }

   /// Loads the depot of a disk, which must show one of the two states. False after a failure.
   bool Reopen(const Disk& disk, const Recording::State& before, const Recording::State& after,
               ScriptedHost& host)
   {
      _clock.SetSeconds(static_cast<int64_t>(after.now));
      DiskModel files(disk);
      const Ref<StatsDepot> depot = New();
      try {
         depot->Load();
      } catch (const Corvax::Exception& e) {
         EXPECT_TRUE(before.isNew) << e.GetMessage();
         host.isNew = before.isNew;
         return before.isNew;
      }
      const Picture shown = PictureOf(*depot);
      if (shown != before.picture && shown != after.picture) {
         EXPECT_EQ(FindForeign(shown, before.picture, after.picture), "");
         EXPECT_EQ(GetParam().journal.checkpointSec, 0)
            << "a journal has runs whole, or not at all";
      }
      Corvax::RefVector<StatsDepotInterval> intervals;
      depot->GetIntervals(intervals);
      host.isNew = intervals.size() < size_t{ScriptedHost::kIntervals};
      EXPECT_TRUE(before.isNew || !host.isNew) << "an interval is lost";
      EXPECT_LE(files.log.size(), 1u) << "more than the lock file was changed";
      host.model = ModelOf(shown);
      if (!host.isNew && Below(5) == 0) {
         const Ref<StatsDepot> reader = New();
         const size_t changes = files.log.size();
         reader->LoadReadOnly();
         EXPECT_TRUE(PictureOf(*reader) == shown) << "read only";
         EXPECT_EQ(files.log.size(), changes) << "a reader changes the disk";
      }
      return !HasFailure();
   }

   uint64_t _crashes = 0;
};

TEST_P(CrashModelTest, ADepotHasWhatWasFinishedAndNothingElse)
{
   CrashEverywhere(Record(NewDisk(GetParam().grain), {}, kRuns));
}

constexpr JournalOptions kJournal{300, 1};

INSTANTIATE_TEST_SUITE_P(Modes, CrashModelTest,
                         testing::Values(Mode{"straightKilled", {}, true, 4096, 30},
                                         Mode{"killed", kJournal, true, 4096, 30},
                                         Mode{"powerCut512", kJournal, false, 512, 40},
                                         Mode{"powerCut4096", kJournal, false, 4096, 40}),
                         [](const auto& each) { return std::string(each.param.name); });

} // namespace
