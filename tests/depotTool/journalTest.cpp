#include "metrix/journalReader.h"
#include "tests/depotTool/depotFixture.h"

namespace {

using namespace DepotTool;

/// With a journal: most samples are in it, and in no other file.
class DepotToolJournalTest : public DepotToolTest {
protected:
   static constexpr Metrix::JournalOptions kJournal = {.checkpointSec = 100, .syncSec = 1};

   std::string ReadJournal() { return _scratch.Read(_journal); }
   /// Offset of the last record.
   size_t FindLast()
   {
      Metrix::JournalReader reader;
      reader.Read(_scratch.Path() + "d");
      const auto payload = reader.GetPayloads().back();
      _journal = "d.journal." + std::to_string(reader.GetFileIndex());
      return ReadJournal().rfind({reinterpret_cast<const char*>(payload.data()), payload.size()}) -
             Metrix::JournalFormat::kPayloadPos;
   }

   /// More runs, with stats that are deleted, created and sampled now and then.
   void Extend(StatsDepot& depot, TimeStamp first, TimeStamp last)
   {
      const std::tuple<const char*, const char*, uint64_t> stats[] = {
         {"vm-1", "cpu#0", 1}, {"vm-1", "cpu#1", 3}, {"host", "mem-used", 9}, {"vm-9", "rare", 10}};
      for (TimeStamp ts = first; ts <= last; ts += 20) {
         const Corvax::Locker run(&depot);
         for (const auto& [entity, name, step] : stats) {
            if (ts / 20 % step == 0 && !depot.AddSample(entity, name, ts, ts, 0)) {
               depot.CreateStat(entity, name, StatsDepot::STATTYPE_ABSOLUTE, 1, {});
               depot.AddSample(entity, name, ts, ts, 0);
            }
         }
         if (ts == kLast + 200) {
            depot.DeleteEntityStats("vm-2");
         } else if (ts == kEnd) {
            depot.DeleteStat("vm-1", "cpu#1");
            depot.CreateStat("vm-8", "new", StatsDepot::STATTYPE_RATE, 1, {});
         }
      }
   }

   static constexpr TimeStamp kEnd = kLast + 800;
   std::string _journal;
};

TEST_F(DepotToolJournalTest, ContentsAreThoseOfADepotWithoutOne)
{
   _clock.SetSeconds(kEnd);
   Extend(*WriteDepot(), kLast + 20, kEnd);
   const std::string dump = Dump();
   {
      const Corvax::Ref<StatsDepot> depot = WriteDepot("mem-used", kJournal);
      Extend(*depot, kLast + 20, kEnd - 20);
      const auto files = _scratch.ReadAll();
      Extend(*depot, kEnd, kEnd);
      // As if the machine had died then: the last run is in the journal alone, and of a row that
      // has samples now and then, the first sector was written.
      for (const char* const file : {"d.idMap", "d-20.stats", "d-60.stats"}) {
         _scratch.Write(file, files.at(file));
      }
      Poke("d-20.stats", RowPos(11, 4), Encode64(kEnd));
   }
   const auto before = _scratch.ReadAll();
   EXPECT_EQ(Dump(), dump);
   EXPECT_EQ(Check(), "journal.pending*1 stat.noSamples*1");
   EXPECT_EQ(_scratch.ReadAll(), before);
   const Scratch repaired;
   Options options;
   options.toDir = repaired.Path();
   EXPECT_EQ(Run(Command::REPAIR, options), 0) << _out;
   EXPECT_EQ(Check(repaired.Path()), "stat.noSamples*1");
   EXPECT_EQ(Dump(repaired.Path()), dump);
}

TEST_F(DepotToolJournalTest, DamageIsFoundAndRepairedInPlace)
{
   const auto stale = [this] {
      FindLast();
      const std::string journal = ReadJournal();
      Open(_scratch.Path())->AddSample("vm-2", "cpu#0", kLast + 21, 1, 0);
      _scratch.Write(_journal, journal);
   };
   const Case cases[] = {
      // the files are as a crash leaves them
      {"an unfinished write", "journal.pending*1 journal.torn*1",
       [this] {
          const size_t last = FindLast();
          Poke(_journal, last + 4096, ReadJournal().substr(last, 100));
       }},
      {"a synced record", "journal.damaged*1 journal.pending*1",
       [this] {
          const size_t last = FindLast();
          Poke(_journal, last - 4096 + 50, "damage");
       }},
      {"another version", "journal.unreadable*1",
       [this] {
          FindLast();
          std::vector<std::byte> record;
          Metrix::JournalFormat::EncodeRecord({.payload = std::as_bytes(std::span("9999"))},
                                              record);
          Poke(_journal, 0, {reinterpret_cast<const char*>(record.data()), record.size()});
       }},
      {"another program ran", "journal.unusable*1", stale},
      {"stamp in the store", "column.stamp*1 journal.pending*1",
       [this] { Poke("d-20.stats", Metrix::StoreFormat::TimeStampPos(1), Encode64(6280)); }},
   };
   for (const Case& damage : cases) {
      SCOPED_TRACE(damage.name);
      PlantAndCheck(damage, kJournal);
      Options options;
      options.inPlace = true;
      if (std::string(damage.found) == "journal.unreadable*1") {
         EXPECT_THROW(Run(Command::REPAIR, options), Corvax::Exception);
         continue;
      }
      EXPECT_EQ(Run(Command::REPAIR, options), 0) << _out;
      EXPECT_EQ(_scratch.Read("d.journal.0") + _scratch.Read("d.journal.1"), "");
   }
}

TEST_F(DepotToolJournalTest, CopiesAreOfOneMoment)
{
   const Corvax::Ref<StatsDepot> depot = WriteDepot("mem-used", kJournal);
   TimeStamp ts = kLast;
   BusyFiles files([&] {
      ts += 20;
      const Corvax::Locker run(depot.Get());
      depot->AddSample("vm-2", "cpu#0", ts, ts, 0);
   });
   files.changes = 4; // in the first two attempts
   _clock.SetSeconds(kLast + 100);
   const std::string dump = Dump();
   EXPECT_EQ(files.changes, 0);
   EXPECT_EQ(Dump(), dump);
}

} // namespace
