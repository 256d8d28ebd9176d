#include "depotTool/commands.h"
#include "metrix/idMapFormat.h"
#include "metrix/journalReader.h"
#include "metrix/statsDepot.h"
#include "metrix/storeFormat.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/messageOf.h"
#include "tests/fakes/scratch.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <set>
#include <sstream>

namespace {

using namespace DepotTool;
using Metrix::StatsDepot;
using Metrix::TimeStamp;
using Metrix::IdMapFormat::kRecordSize;

constexpr unsigned kFineSamples = 12;  // of 20 s
constexpr unsigned kCoarseSamples = 5; // of 60 s
constexpr TimeStamp kFirst = 6000;
constexpr TimeStamp kLast = 6400; // in column 8 of the fine store, whose ring has wrapped

/// Offset of a field of a record.
size_t RecordPos(size_t id, size_t field)
{
   return id * kRecordSize + field;
}

/// Offset of a field of a row in the fine store.
size_t RowPos(size_t id, size_t field)
{
   return Metrix::StoreFormat::RowsPos(kFineSamples) +
          id * Metrix::StoreFormat::RowSize(kFineSamples) + field;
}

std::string Encode64(uint64_t value)
{
   std::string bytes(8, '\0');
   Metrix::Encode(value, reinterpret_cast<std::byte*>(bytes.data()));
   return bytes;
}

class DepotToolTest : public testing::Test {
protected:
   DepotToolTest() { _clock.SetSeconds(kLast); }

   /// Three stats of one name with the ids 0 to 8, and one with 9 and 10. Returns the open depot.
   Corvax::Ref<StatsDepot> WriteDepot(const std::string& odd = "mem-used",
                                      const Metrix::JournalOptions& journal = {})
   {
      Corvax::Ref<StatsDepot> depot;
      GetStatsDepot(_scratch.Path(), "d", _logger.Get(), 1000, depot, journal);
      depot->Create();
      depot->AddInterval("RealTime", 20, kFineSamples);
      depot->AddInterval("1min", 60, kCoarseSamples);
      const std::pair<std::string, std::string> stats[] = {
         {"vm-2", "cpu#0"}, {"vm-1", "cpu#0"}, {"vm-1", "cpu#1"}, {"host", odd}};
      for (const auto& [entity, name] : stats) {
         using enum StatsDepot::RollupType;
         depot->CreateStat(entity, name, StatsDepot::STATTYPE_ABSOLUTE, 1,
                           name == odd ? std::vector{ROLLUP_LAST}
                                       : std::vector{ROLLUP_AVERAGE, ROLLUP_MAX});
      }
      for (TimeStamp ts = kFirst; ts <= kLast; ts += 20) {
         const Corvax::Locker run(depot.Get());
         for (size_t i = 0; i < std::size(stats); ++i) {
            if (i != 1 || ts % 180 != 100) { // one stat has gaps, also at the end
               // Late, so that periods are filled before their last column is.
               depot->AddSample(stats[i].first, stats[i].second, ts + 1, ts * 7 % 1000 + i, 0);
            }
         }
      }
      return depot;
   }

   void Poke(const std::string& file, size_t offset, const std::string& bytes)
   {
      std::string content = _scratch.Read(file);
      content.resize(std::max(content.size(), offset + bytes.size()));
      _scratch.Write(file, content.replace(offset, bytes.size(), bytes));
   }
   void Replace(const std::string& file, const std::string& text, const std::string& by)
   {
      const std::string content = _scratch.Read(file);
      Poke(file, 0,
           content.substr(0, content.find(text)) + by +
              content.substr(content.find(text) + text.size()));
   }
   void CutTo(const std::string& file, size_t bytes)
   {
      _scratch.Write(file, _scratch.Read(file).substr(0, bytes));
   }
   void Delete(const std::string& file)
   {
      Corvax::System::GetFactory().Remove(_scratch.Path() + file);
   }

   int Run(Command command, const Options& more = {}, const std::string& dir = "")
   {
      Options options = more;
      options.command = command;
      options.dir = dir.empty() ? _scratch.Path() : dir;
      options.name = "d";
      std::ostringstream out;
      std::ostringstream remarks;
      const int status = RunCommand(options, out, remarks);
      _out = out.str();
      return status;
   }
   /// What check finds, as "KIND*COUNT KIND*COUNT".
   std::string Check(const std::string& dir = "")
   {
      Options options;
      options.json = true;
      const int status = Run(Command::CHECK, options, dir);
      const nlohmann::json found = nlohmann::json::parse(_out);
      EXPECT_EQ(status, found["faults"] == 0 ? 0 : 1);
      std::map<std::string, int> counts;
      for (const auto& entry : found["counts"]) {
         counts[entry["kind"]] += entry["count"].get<int>();
      }
      std::string text;
      for (const auto& [kind, count] : counts) {
         text += (text.empty() ? "" : " ") + kind + "*" + std::to_string(count);
      }
      return text;
   }
   std::string Dump(const std::string& dir = "")
   {
      EXPECT_EQ(Run(Command::DUMP, {}, dir), 0);
      return _out;
   }
   int Restore(const std::string& dump, const std::string& dir)
   {
      _scratch.Write("dump", dump);
      Options options;
      options.dumpFile = _scratch.Path() + "dump";
      return Run(Command::RESTORE, options, dir);
   }
   Corvax::Ref<StatsDepot> Open(const std::string& dir)
   {
      Corvax::Ref<StatsDepot> depot;
      GetStatsDepot(dir, "d", _logger.Get(), 1000, depot);
      depot->Load();
      return depot;
   }
   std::map<std::string, std::string> ReadAll()
   {
      std::map<std::string, std::string> files;
      for (const std::string& name : Corvax::System::GetFactory().ListDirectory(_scratch.Path())) {
         files[name] = _scratch.Read(name);
      }
      return files;
   }

   const Scratch _scratch;
   ManualClock _clock;
   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   std::string _out;
};

/// A damage and what check finds then.
struct Case {
   const char* name;
   const char* found;
   std::function<void()> plant;
};

class DamageTest : public DepotToolTest {
protected:
   /// Checks each damage and repairs it into another directory, which leaves the depot as it is.
   void Expect(const std::vector<Case>& cases)
   {
      for (const auto& [name, found, plant] : cases) {
         SCOPED_TRACE(name);
         for (const auto& [file, content] : ReadAll()) {
            Delete(file);
         }
         WriteDepot();
         plant();
         const auto before = ReadAll();
         EXPECT_EQ(Check(), found);
         EXPECT_EQ(ReadAll(), before);
         const Scratch repaired;
         Options options;
         options.toDir = repaired.Path();
         options.recompute = true;
         EXPECT_EQ(Run(Command::REPAIR, options), 0) << _out;
         EXPECT_EQ(ReadAll(), before);
         EXPECT_EQ(Run(Command::CHECK, {}, repaired.Path()), 0) << _out;
         EXPECT_NO_THROW(Open(repaired.Path()));
      }
   }
};

TEST_F(DamageTest, OfDescriptionAndStoreFilesIsFoundAndRepaired)
{
   Expect({
      {"none", "", [] {}},
      {"no description", "description.unusable*1", [&] { Delete("d.xml"); }},
      {"no interval", "description.unusable*1", [&] { _scratch.Write("d.xml", "<config/>"); }},
      {"a period", "description.unusable*1", [&] { Replace("d.xml", ">60<", ">50<"); }},
      {"a path", "description.storePath*1", [&] { Replace("d.xml", "d-20.stats", "e-20.stats"); }},
      {"a number", "description.columns*1", [&] { Replace("d.xml", ">12<", ">13<"); }},
      {"a leftover", "file.unused*1", [&] { _scratch.Write("d-40.stats", "x"); }},
      {"no store", "store.missing*1", [&] { Delete("d-20.stats"); }},
      {"a header alone", "store.unusable*1", [&] { CutTo("d-20.stats", 50); }},
      {"two numbers", "store.unusable*1",
       [&] {
          Poke("d-20.stats", 0, "\x0b");
          Replace("d.xml", ">12<", ">13<");
       }},
      {"number of columns", "store.header*1", [&] { Poke("d-20.stats", 0, "\x0d"); }},
      {"period in the store", "store.header*1", [&] { Poke("d-20.stats", 4, "\x15"); }},
      {"half a row", "store.partialRow*1", [&] { Poke("d-60.stats", 48 + 11 * 52, "half"); }},
   });
}

TEST_F(DamageTest, OfColumnsIsFoundAndRepaired)
{
   const auto poke = [this](size_t column, uint64_t stamp) {
      Poke("d-20.stats", Metrix::StoreFormat::TimeStampPos(column), Encode64(stamp));
   };
   Expect({
      {"no multiple", "column.stamp*1", [=] { poke(3, 6301); }},
      {"older", "column.stamp*1", [=] { poke(3, 6180); }},
      {"equal", "column.stamp*1", [=] { poke(3, 6320); }},
      {"swapped", "column.stamp*1 rollup.value*1",
       [=] {
          poke(3, 6320);
          poke(4, 6300);
       }},
      {"unused", "column.unused*1", [=] { poke(3, ~uint64_t{0}); }},
      {"ahead of the clock", "column.stamp*1", [=] { poke(9, 20 << 20); }},
      // Rows are as new as the newest column was.
      {"newest is ahead", "column.stamp*1 row.stamp*3", [=] { poke(8, 7000); }},
      {"clock was set back", "column.stamp*4 row.stamp*11", [this] { _clock.SetSeconds(6280); }},
   });
}

TEST_F(DamageTest, OfTheIdMapIsFoundAndRepaired)
{
   const auto poke = [this](size_t id, size_t field, const std::string& bytes) {
      Poke("d.idMap", RecordPos(id, field), bytes);
   };
   const std::string copied = [this] {
      WriteDepot();
      return _scratch.Read("d.idMap").substr(kRecordSize, kRecordSize);
   }();
   Expect({
      {"no id map", "idMap.missing*1 row.noRecord*11", [&] { Delete("d.idMap"); }},
      {"half a record", "idMap.partialRecord*1 row.noRecord*1",
       [&] { CutTo("d.idMap", 11 * kRecordSize - 1); }},
      {"rollup", "record.damaged*1 rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(1, 512, "\x06"); }},
      {"stat type", "record.damaged*1 rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(1, 516, "\x03"); }},
      {"name", "record.damaged*1 rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(1, 256, std::string(1, '\0')); }},
      {"endless name", "record.damaged*1 rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(1, 256, std::string(256, 'n')); }},
      {"duplicate", "record.duplicate*1", [&] { poke(11, 0, copied); }},
      {"factor", "record.mismatch*1", [&] { poke(1, 520, "\x02"); }},
      {"no raw series", "row.noRecord*3 stat.noRawSeries*2",
       [&] { poke(0, 0, std::string(256, '\0')); }},
      {"no rollup", "rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(2, 0, std::string(256, '\0')); }},
   });
}

TEST_F(DamageTest, OfRowsIsFoundAndRepaired)
{
   const auto poke = [this](size_t id, size_t field, const std::string& bytes) {
      Poke("d-20.stats", RowPos(id, field), bytes);
   };
   const size_t coarseSample = 48 + 1 * 52 + Metrix::StoreFormat::SamplePos(4); // at 6240
   Expect({
      {"flag", "row.flag*1", [=] { poke(0, 0, "\x02"); }},
      {"newer than all columns", "row.stamp*1", [=] { poke(0, 4, Encode64(kLast + 20)); }},
      {"unset", "row.stamp*1", [=] { poke(0, 4, Encode64(~uint64_t{0})); }},
      {"in no column", "row.stamp*1", [=] { poke(0, 4, Encode64(kLast - 30)); }},
      {"beyond the records", "row.noRecord*1", [=] { poke(12, 0, "\1" + std::string(107, '\0')); }},
      {"coarse sample", "rollup.value*1",
       [=, this] { Poke("d-60.stats", coarseSample, Encode64(1)); }},
      {"coarse row", "rollup.value*1",
       [=, this] { Poke("d-60.stats", 48 + 1 * 52, std::string(4, '\0')); }},
      {"fine rows, and so the stat", "stat.noSamples*1",
       [=, this] {
          poke(9, 0, std::string(4, '\0'));
          Poke("d-60.stats", 48 + 10 * 52, std::string(4, '\0'));
       }},
   });
}

/// With a journal: most samples are in it, and in no other file.
class JournalTest : public DepotToolTest {
protected:
   static constexpr Metrix::JournalOptions kJournal = {.checkpointSec = 100, .syncSec = 1};

   /// Leaves the files as a crash does.
   void WriteJournaled() { WriteDepot("mem-used", kJournal); }
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

   std::string _journal;
};

TEST_F(JournalTest, ContentsAreThoseOfADepotWithoutOne)
{
   WriteDepot();
   const std::string dump = Dump();
   const Corvax::Ref<StatsDepot> open = WriteDepot("mem-used", kJournal);
   const auto before = ReadAll();
   EXPECT_EQ(Dump(), dump);
   EXPECT_EQ(Check(), "journal.pending*1");
   EXPECT_EQ(ReadAll(), before);
   const Scratch repaired;
   Options options;
   options.toDir = repaired.Path();
   EXPECT_EQ(Run(Command::REPAIR, options), 0) << _out;
   EXPECT_EQ(Check(repaired.Path()), "");
   EXPECT_EQ(Dump(repaired.Path()), dump);
}

TEST_F(JournalTest, DamageIsFoundAndRepairedInPlace)
{
   const auto stale = [this] {
      FindLast();
      const std::string journal = ReadJournal();
      Open(_scratch.Path())->AddSample("vm-2", "cpu#0", kLast + 21, 1, 0);
      _scratch.Write(_journal, journal);
   };
   const std::tuple<const char*, const char*, std::function<void()>> cases[] = {
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
   for (const auto& [name, found, plant] : cases) {
      SCOPED_TRACE(name);
      for (const auto& [file, content] : ReadAll()) {
         Delete(file);
      }
      WriteJournaled();
      plant();
      EXPECT_EQ(Check(), found) << _out;
      Options options;
      options.inPlace = true;
      if (std::string(name) == "another version") {
         EXPECT_THROW(Run(Command::REPAIR, options), Corvax::Exception);
         continue;
      }
      EXPECT_EQ(Run(Command::REPAIR, options), 0) << _out;
      EXPECT_EQ(_scratch.Read("d.journal.0") + _scratch.Read("d.journal.1"), "");
   }
}

TEST_F(DepotToolTest, FindingsSayFilePlaceFaultAndRemedy)
{
   WriteDepot();
   Poke("d-20.stats", RowPos(1, 0), std::string("\1\0\0\0", 4));
   Poke("d.idMap", RecordPos(1, 0), std::string(256, '\0'));
   EXPECT_EQ(Run(Command::CHECK), 1);
   EXPECT_NE(_out.find("d-60.stats: row 1, offset 100: it is in use, but the id map has no record "
                       "of it; repair: the row is freed\n"),
             std::string::npos)
      << _out;
}

TEST_F(DepotToolTest, RepairInPlaceNeedsTheLockAndRecomputesOnRequestOnly)
{
   WriteDepot();
   const std::string sound = Dump();
   Poke("d-60.stats", 48 + 52 + Metrix::StoreFormat::SamplePos(4), Encode64(1));
   Options options;
   options.inPlace = true;
   {
      const auto lock = Corvax::System::GetFactory().Lock(_scratch.Path() + "d.lock");
      EXPECT_NE(MessageOf([&] { Run(Command::REPAIR, options); }).find("locked"),
                std::string::npos);
   }
   EXPECT_EQ(Run(Command::REPAIR, options), 1);
   EXPECT_NE(Dump(), sound);
   options.recompute = true;
   EXPECT_EQ(Run(Command::REPAIR, options), 0);
   EXPECT_EQ(Dump(), sound);
}

TEST_F(DepotToolTest, DumpOfARestoredDepotIsTheSame)
{
   WriteDepot("odd \\name\n#\xff");
   const std::string dump = Dump();
   EXPECT_NE(dump.find("\nstat host odd\\x20\\x5cname\\x0a#\\xff absolute 1 none last\n"
                       "samples RealTime none\n6180 263 403"),
             std::string::npos)
      << dump;
   EXPECT_NE(
      dump.find("\nstat vm-1 cpu#0 absolute 1 none average maximum\n"
                "samples RealTime none\n6180 261 401\n6240 681 821 961 101 241 381 521 661\n"),
      std::string::npos) // nothing at 6400, where the row has an older sample
      << dump;
   const Scratch restored;
   ASSERT_EQ(Restore(dump, restored.Path()), 0);
   EXPECT_EQ(Dump(restored.Path()), dump);
   EXPECT_EQ(Check(restored.Path()), "");
   EXPECT_NO_THROW(Open(restored.Path()));
   EXPECT_NE(MessageOf([&] { Restore(dump, restored.Path()); }).find("already"), std::string::npos);
}

TEST_F(DepotToolTest, RestoreNamesTheLineThatIsWrong)
{
   const std::string first = "metrix-depot dump 1\ninterval a 20 3\ncolumns 20 2\n";
   const std::string stat = "stat e s absolute 1 none\nsamples a none\n";
   const std::pair<std::string, std::string> cases[] = {
      {"metrix-depot dump 2\n", "line 1"},
      {first, "cut off after line 3"},
      {first + "end 0", "cut off after line 3"},
      {first + "end 1\n", "line 4"},
      {first + "end 0\nend 0\n", "line 5"},
      {first + "interval b 30 3\n", "line 4"},
      {first + "columns 40 1\n", "line 4"},
      {first + "columns 60 2\n", "line 4"},
      {first + "20 1\n", "line 4"},
      {first + stat + "60 1\n", "line 6"},
      {first + stat + "20 x\n", "line 6"},
      {first + stat + "20 1 2\nstat e s absolute 1 none\n", "line 7"},
      {first + "stat e \\x0 absolute 1 none\n", "line 4"},
      {first + "stat e s absolute 1 sum\n", "line 4"},
      {first + stat + "samples b none\n", "line 6"},
   };
   for (const auto& [dump, complaint] : cases) {
      EXPECT_NE(MessageOf([&] { Restore(dump, _scratch.Path()); }).find(complaint),
                std::string::npos)
         << dump;
      EXPECT_EQ(ReadAll().size(), 2u); // the dump and the lock
   }
}

TEST_F(DepotToolTest, ExportGroupsTheSamplesOfAFamily)
{
   WriteDepot("cp\xffu"); // the same family as another one would be "cp_u"
   Options options;
   options.openMetrics = true;
   options.intervalName = "1min";
   ASSERT_EQ(Run(Command::EXPORT, options), 0);
   std::istringstream lines(_out);
   std::set<std::string> families;
   std::set<std::string> series;
   std::string family;
   std::string labels;
   uint64_t time = 0;
   for (std::string line; std::getline(lines, line) && line != "# EOF";) {
      if (line.starts_with("# TYPE ")) {
         family = line.substr(7, line.find(' ', 7) - 7);
         EXPECT_TRUE(families.insert(family).second) << line;
         continue;
      }
      std::string name;
      uint64_t value = 0;
      uint64_t ts = 0;
      std::istringstream(line) >> name >> value >> ts;
      EXPECT_TRUE(name.starts_with(family + "{")) << line;
      EXPECT_TRUE(name == labels ? ts > time : series.insert(name).second) << line;
      labels = name;
      time = ts;
   }
   EXPECT_TRUE(_out.ends_with("\n# EOF\n"));
   EXPECT_EQ(families, (std::set<std::string>{"metrix_cpu", "metrix_cp_u"}));
   EXPECT_EQ(series.size(), 7u);
   EXPECT_NE(
      _out.find("\nmetrix_cpu{entity=\"vm-1\",instance=\"1\",rollup=\"maximum\"} 982 6180\n"),
      std::string::npos)
      << _out;
   options.intervalName = "2min";
   EXPECT_THROW(Run(Command::EXPORT, options), Corvax::InvalidArgumentException);
}

TEST_F(DepotToolTest, InfoShowsSizeAndHistory)
{
   WriteDepot();
   Options options;
   options.json = true;
   ASSERT_EQ(Run(Command::INFO, options), 0);
   const nlohmann::json info = nlohmann::json::parse(_out);
   EXPECT_EQ(info["stats"], 4);
   EXPECT_EQ(info["series"], 11);
   EXPECT_EQ(info["intervals"][0]["newest"], kLast);
   EXPECT_EQ(info["intervals"][1]["fullBytes"], 48 + 11 * 52);
}

/// Calls a function when every third file is opened.
class BusyFiles : public FaultyFiles {
public:
   explicit BusyFiles(std::function<void()> change) : _change(std::move(change)) {}
   int changes = 0; ///< how often
   Corvax::Ref<Corvax::FileHandle> NewFileHandle() override
   {
      if (++_opened % 3 == 0 && changes > 0) {
         --changes;
         _change();
      }
      return FaultyFiles::NewFileHandle();
   }

private:
   const std::function<void()> _change;
   int _opened = 0;
};

TEST_F(DepotToolTest, CopiesAreOfOneMomentOrBusy)
{
   WriteDepot();
   std::map<std::string, std::string> states[2] = {ReadAll()};
   Open(_scratch.Path())->DeleteEntityStats("vm-2");
   states[1] = ReadAll();
   size_t changes = 0;
   BusyFiles files([&] {
      for (const auto& [file, content] : states[changes++ % 2]) {
         _scratch.Write(file, content);
      }
   });
   files.changes = 8; // in the first two attempts
   EXPECT_EQ(Check(), "");
   EXPECT_EQ(files.changes, 0);
   files.changes = 1000;
   EXPECT_NE(MessageOf([&] { Check(); }).find("busy"), std::string::npos);
}

} // namespace
