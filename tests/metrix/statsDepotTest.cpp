#include "metrix/statsDepot.h"

#include "corvax/exception.h"
#include "metrix/idMapFormat.h"
#include "metrix/selfTest.h"
#include "metrix/storeFormat.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/messageOf.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

namespace {

using namespace Metrix;
using Corvax::InvalidArgumentException;
using IdMapFormat::kRecordSize;

const std::vector<StatsDepot::RollupType> kAverageMax = {StatsDepot::ROLLUP_AVERAGE,
                                                         StatsDepot::ROLLUP_MAX};

class StatsDepotTest : public testing::Test {
protected:
   void Open(int maxStatsPurged = 1000)
   {
      GetStatsDepot(_scratch.Path(), "d", _logger.Get(), maxStatsPurged, _depot);
   }
   void Create(const std::vector<std::pair<int, unsigned>>& intervals = {{20, 180}, {300, 432}})
   {
      Open();
      _depot->Create();
      for (const auto& [period, samples] : intervals) {
         _depot->AddInterval("every" + std::to_string(period), period, samples);
      }
   }
   void Reload()
   {
      Open();
      _depot->Load();
   }
   void AddStat(const std::string& name, StatsDepot::StatType type = StatsDepot::STATTYPE_ABSOLUTE,
                const std::vector<StatsDepot::RollupType>& rollups = kAverageMax)
   {
      _depot->CreateStat("e", name, type, 1, rollups);
   }
   StatVal Read(const std::string& stat, TimeStamp ts, const std::string& interval = "",
                StatsDepot::RollupType rollup = StatsDepot::ROLLUP_NONE)
   {
      return _depot->GetSample("e", stat, ts, interval, rollup);
   }
   std::vector<std::string> Names()
   {
      std::vector<std::string> names;
      _depot->GetAvailableStatNames("e", 0, 0, names);
      return names;
   }
   static std::string Record(const std::string& entity, const std::string& stat,
                             const std::string& numbers)
   {
      return entity + std::string(256 - entity.size(), '\0') + stat +
             std::string(256 - stat.size(), '\0') + FromHex(numbers);
   }

   const Scratch _scratch;
   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   Corvax::Ref<StatsDepot> _depot;
};

TEST_F(StatsDepotTest, IntervalsAreAddedFinestFirst)
{
   Create({{20, 180}, {300, 432}, {1800, 10}});
   const std::tuple<std::string, int, unsigned> refused[] = {
      {"finer", 10, 5},   {"between", 600, 5},  {"no multiple", 2000, 5},
      {"twice", 1800, 5}, {"every20", 3600, 5}, {"", 3600, 5},
      {"none", 0, 5},     {"none", 3600, 0},    {"vast", 3600, 4000000000U},
   };
   for (const auto& [name, period, samples] : refused) {
      EXPECT_THROW(_depot->AddInterval(name, period, samples), InvalidArgumentException);
   }
   EXPECT_EQ(_logger->Count("3 AddInterval failed : sampling period 2000 is not a multiple of "
                            "existing interval 1800"),
             1);
   Reload();
   Corvax::RefVector<StatsDepotInterval> intervals;
   _depot->GetIntervals(intervals);
   ASSERT_EQ(intervals.size(), 3u);
   EXPECT_EQ(intervals[2]->name, "every1800");
   EXPECT_EQ(intervals[2]->numSamples, 10);
   EXPECT_FALSE(std::ifstream(_scratch.Path() + "d-3600.stats").good());
}

TEST_F(StatsDepotTest, DescriptionAndIdMapAreByteForByteAsDocumented)
{
   Create({{20, 3}});
   EXPECT_EQ(_scratch.Read("d.xml"),
             "<?xml version=\"1.0\"?>\n<config>\n  <intervals>\n    <interval>\n"
             "      <name>every20</name>\n      <storeName>" +
                _scratch.Path() +
                "d-20.stats</storeName>\n      <samplingPeriod>20</samplingPeriod>\n"
                "      <numSamples>3</numSamples>\n    </interval>\n  </intervals>\n</config>\n");
   _depot->CreateStat("e", "one", StatsDepot::STATTYPE_RATE, -2, kAverageMax);
   _depot->CreateStat("e", "two", StatsDepot::STATTYPE_DELTA, 1, {StatsDepot::ROLLUP_SUM});
   EXPECT_EQ(_logger->Count("7 Added statId 2 for e-one-2"), 1);
   EXPECT_EQ(_scratch.Read("d.idMap"), Record("e", "one", "00000000 02000000 feffffff") +
                                          Record("e", "one", "01000000 02000000 feffffff") +
                                          Record("e", "one", "02000000 02000000 feffffff") +
                                          Record("e", "two", "00000000 01000000 01000000") +
                                          Record("e", "two", "05000000 01000000 01000000"));
   _depot->DeleteStat("e", "one");
   _depot->CreateStat("e", "three", StatsDepot::STATTYPE_ABSOLUTE, 1, {});
   EXPECT_EQ(_scratch.Read("d.idMap").substr(0, 3 * kRecordSize),
             Record("e", "three", "00000000 00000000 01000000") +
                Record("", "one", "01000000 02000000 feffffff") +
                Record("", "one", "02000000 02000000 feffffff"));
}

TEST_F(StatsDepotTest, JournalIsByteForByteAsDocumented)
{
   GetStatsDepot(_scratch.Path(), "d", _logger.Get(), 1000, _depot, {300, 1});
   _depot->Create();
   _depot->AddInterval("ten", 10, 4);
   for (const TimeStamp ts : {10, 20}) {
      const Corvax::Locker lock(_depot.Get());
      if (ts == 10) {
         AddStat("mem-state", StatsDepot::STATTYPE_ABSOLUTE, {});
         AddStat("disk-usage", StatsDepot::STATTYPE_ABSOLUTE, {StatsDepot::ROLLUP_AVERAGE});
      }
      _depot->AddSample("e", "mem-state", ts, 160 + ts / 10, 0);
      _depot->AddSample("e", "disk-usage", ts, 176 + ts / 10, 0);
   }
   std::string bytes = _scratch.Read("d.journal.0");
   // Lines of the document: offset, bytes ("..": any), meaning. All other bytes are zero.
   std::ifstream document(DOCS_DIRECTORY "/formats/journal.md");
   const std::regex pattern(" *(\\d+)  +((?:[0-9a-f.]{2} )*[0-9a-f.]{2})(?:  .*)?");
   std::smatch match;
   for (std::string line; std::getline(document, line);) {
      const bool isExample = std::regex_match(line, match, pattern);
      std::istringstream wanted(isExample ? match[2].str() : "");
      size_t pos = isExample ? std::stoul(match[1]) : 0;
      for (std::string byte; wanted >> byte; ++pos) {
         const char hex[] = {"0123456789abcdef"[bytes.at(pos) >> 4 & 15],
                             "0123456789abcdef"[bytes.at(pos) & 15]};
         EXPECT_TRUE(byte == ".." || byte == std::string(hex, 2))
            << pos << " is " << hex[0] << hex[1];
         bytes[pos] = '\0';
      }
   }
   EXPECT_EQ(bytes.find_first_not_of('\0'), std::string::npos);
}

TEST_F(StatsDepotTest, LoadSkipsDamagedRecordsAndDropsStatsWithoutARawSeries)
{
   Create();
   _scratch.Write("d.idMap", Record("e", "whole", "00000000 00000000 01000000") +
                                Record("e", "twice", "00000000 00000000 01000000") +
                                Record("e", "twice", "00000000 00000000 01000000") +
                                Record("e", "rollup", "06000000 00000000 01000000") +
                                Record("e", "type", "00000000 03000000 01000000") +
                                Record("e", "rawless", "01000000 00000000 01000000") +
                                Record(std::string(256, 'n'), std::string(256, 'n'),
                                       "00000000 00000000 01000000") +
                                "partial");
   Reload();
   for (const char* const logged :
        {"4 StatsDepot idmap file might be corrupted.File size is not a multiple",
         "5 StatId 2 for e-twice is a duplicate", "damaged record at 3", "damaged record at 4",
         "Stat rawless of e has lost its raw series"}) {
      EXPECT_EQ(_logger->Count(logged), 1) << logged;
   }
   auto names = Names();
   std::ranges::sort(names);
   EXPECT_EQ(names, (std::vector<std::string>{"twice", "whole"}));
   _depot->GetAvailableStatNames(std::string(256, 'n'), 0, 0, names);
   EXPECT_EQ(names.size(), 1u);
   AddStat("new", StatsDepot::STATTYPE_ABSOLUTE, {});
   EXPECT_EQ(_scratch.Read("d.idMap").substr(2 * kRecordSize + 256, 3), "new")
      << "the duplicate's slot is free";
}

TEST_F(StatsDepotTest, LoadRecreatesADamagedStore)
{
   Create({{20, 3}, {300, 5}});
   const std::string damaged = FromHex("04000000 14000000 ff*32");
   _scratch.Write("d-20.stats", damaged);
   Reload();
   EXPECT_EQ(
      _logger->Count("3 Error in loading interval every20: Number of samples in store doesnt "
                     "match expected value"),
      1);
   EXPECT_EQ(_scratch.Read("d-20.stats"), damaged) << "loading changes no file";
   EXPECT_FALSE(_depot->AddSample("e", "any", 1000, 1, 0));
   EXPECT_EQ(_scratch.Read("d-20.stats"), FromHex("03000000 14000000 ff*24"));
   EXPECT_EQ(_scratch.Read("d-20.stats.aside"), damaged);
}

TEST_F(StatsDepotTest, LoadNeverOverwritesAForeignFile)
{
   Create({{20, 3}, {300, 5}});
   AddStat("s");
   _depot->AddSample("e", "s", 1000, 1, 0);
   std::string description = _scratch.Read("d.xml");
   const std::string own = "d-20.stats";
   description.replace(description.find(own), own.size(), "foreign.txt");
   _scratch.Write("d.xml", description);
   _scratch.Write("foreign.txt", "somebody's text");
   Reload();
   EXPECT_EQ(_depot->GetLatestTimeStamp(), 1000u) << "the depot's own store lies beside it";
   _depot->AddSample("e", "s", 1020, 1, 0);
   EXPECT_NE(_scratch.Read("d.xml").find(own), std::string::npos);
   _scratch.Write("d.xml", description);
   Corvax::System::GetFactory().Remove(_scratch.Path() + own);
   EXPECT_THROW(Reload(), Corvax::FileFormatException);
   EXPECT_EQ(_logger->Count("3 Invalid interval information for interval interval[0]"), 1);
   EXPECT_EQ(_scratch.Read("foreign.txt"), "somebody's text");
}

TEST_F(StatsDepotTest, AColumnWithADamagedStampIsGivenUpAndRollingUpGoesOn)
{
   for (const JournalOptions& options : {JournalOptions{}, {300, 1}}) {
      _depot = nullptr;
      GetStatsDepot(_scratch.Path(), "d", _logger.Get(), 1000, _depot, options);
      _depot->Create();
      _depot->AddInterval("every10", 10, 12);
      _depot->AddInterval("every30", 30, 9);
      AddStat("s");
      const auto addUpTo = [this](TimeStamp first, TimeStamp end) {
         for (TimeStamp ts = first; ts <= end; ts += 10) {
            _depot->AddSample("e", "s", ts, ts, 0);
         }
      };
      addUpTo(1000, 1200);
      _depot->Checkpoint();
      const TimeStamp newest = 1170;
      ASSERT_NE(Read("s", newest, "every30", StatsDepot::ROLLUP_MAX), kUnset);
      _depot = nullptr;
      std::string store = _scratch.Read("d-30.stats");
      const size_t pos = store.find(std::string("\x92\x04\0\0\0\0\0\0", 8)); // 1170
      store.at(pos + 7) = '\x40';
      _scratch.Write("d-30.stats", store);
      if (options.checkpointSec > 0) {
         Corvax::System::GetFactory().Remove(_scratch.Path() + "d.journal.0");
         Corvax::System::GetFactory().Remove(_scratch.Path() + "d.journal.1");
      }
      Reload();
      EXPECT_EQ(Read("s", newest - 30, "every30", StatsDepot::ROLLUP_MAX), newest - 30);
      addUpTo(1210, 1300);
      for (TimeStamp ts = newest - 30; ts <= 1260; ts += 30) {
         EXPECT_EQ(Read("s", ts, "every30", StatsDepot::ROLLUP_MAX), ts);
      }
   }
   EXPECT_EQ(_logger->Count("impossible stamp"), 2);
}

/// A backup that is put back while the depot is open, or a file that somebody deletes.
TEST_F(StatsDepotTest, FilesThatAreReplacedUnderTheDepotAreNotWrittenOver)
{
   for (const std::string name : {"d-20.stats", "d-100.stats", "d.idMap", "d.journal.1", "all"}) {
      SCOPED_TRACE(name);
      _depot = nullptr;
      _logger->Clear();
      GetStatsDepot(_scratch.Path(), "d", _logger.Get(), 1000, _depot, {300, 1});
      _depot->Create();
      _depot->AddInterval("every20", 20, 30);
      _depot->AddInterval("every100", 100, 9);
      AddStat("s");
      TimeStamp ts = 1000;
      for (; ts < 1200; ts += 20) {
         ASSERT_TRUE(_depot->AddSample("e", "s", ts, ts, 0));
      }
      const std::string backup = name == "all" ? "" : _scratch.Read(name);
      for (const char* const file :
           {"d-20.stats", "d-100.stats", "d.idMap", "d.xml", "d.journal.0", "d.journal.1"}) {
         if (name == file || name == "all") {
            Corvax::System::GetFactory().Remove(_scratch.Path() + file);
         }
      }
      if (name != "all") {
         _scratch.Write(name, backup);
      }
      _depot->AddSample("e", "s", ts, ts, 0);
      EXPECT_NE(_depot->GetTrouble(), "");
      EXPECT_EQ(_logger->Count("was replaced, cut off or deleted"), 1);
      EXPECT_EQ(name == "all" ? "" : _scratch.Read(name), backup);
      if (!_depot->AddSample("e", "s", ts + 20, 7, 0)) {
         AddStat("s");
         EXPECT_TRUE(_depot->AddSample("e", "s", ts + 20, 7, 0));
      }
      EXPECT_EQ(_depot->GetTrouble(), "");
      Reload();
      EXPECT_EQ(Read("s", ts + 20), 7u);
      for (TimeStamp old = 1000; old <= ts; old += 20) {
         EXPECT_TRUE(Read("s", old) == kUnset || Read("s", old) == old) << old;
      }
   }
}

TEST_F(StatsDepotTest, LoadRefusesAnIncompleteDescription)
{
   Create();
   const std::string description = _scratch.Read("d.xml");
   const std::pair<std::string, std::string> cases[] = {
      {"<config/>", "Couldnot find any interval infromation in depot file"},
      {"<config><intervals><interval><name>n</name></interval></intervals></config>",
       "Invalid interval information for interval interval[0]"},
      {"<other/>", "the root element is not \"config\""},
      {description.substr(0, description.size() / 2), "not well-formed XML"},
      {"", "not well-formed XML"},
   };
   for (const auto& [text, message] : cases) {
      _scratch.Write("d.xml", text);
      EXPECT_NE(MessageOf([this] { Reload(); }).find(message), std::string::npos) << message;
   }
}

TEST_F(StatsDepotTest, RefusesBadArguments)
{
   Open();
   EXPECT_THROW(_depot->GetLatestTimeStamp(), Corvax::AssertionException) << "not open yet";
   Create();
   EXPECT_EQ(_depot->GetLatestTimeStamp(), kUnset);
   EXPECT_THROW(AddStat(""), InvalidArgumentException);
   EXPECT_THROW(_depot->CreateStat("", "s", {}, 1, {}), InvalidArgumentException);
   EXPECT_THROW(AddStat("s", static_cast<StatsDepot::StatType>(3)), InvalidArgumentException);
   EXPECT_THROW(AddStat("s", {}, {static_cast<StatsDepot::RollupType>(6)}),
                InvalidArgumentException);
   EXPECT_THROW(AddStat(std::string(256, 's')), Corvax::AssertionException);
   EXPECT_TRUE(Names().empty());
   const std::string longest(255, 's');
   AddStat(longest);
   EXPECT_THROW(AddStat(longest), Corvax::AssertionException) << "it exists";
   EXPECT_THROW(_depot->AddSample("e", longest, kUnset, 1, 0), InvalidArgumentException);
   EXPECT_THROW(Read(longest, 1, "no such interval"), InvalidArgumentException);
}

TEST_F(StatsDepotTest, RowsAreFreedByADeletionAndBeforeANewStatGetsThem)
{
   Create({{10, 3}, {30, 3}});
   AddStat("old");
   for (TimeStamp ts = 1000; ts <= 1040; ts += 10) {
      _depot->AddSample("e", "old", ts, 7, 0);
   }
   const std::string fine = _scratch.Read("d-10.stats");
   const size_t rawRow = StoreFormat::RowsPos(3);
   const size_t averageRow = rawRow + StoreFormat::RowSize(3);
   for (const char used : {'\1', '\0'}) {
      EXPECT_EQ(_scratch.Read("d-10.stats").at(rawRow), used);
      EXPECT_EQ(_scratch.Read("d-30.stats").at(averageRow), used);
      _depot->DeleteStat("e", "old");
   }
   // As if the process had died between clearing the records and freeing the rows.
   _scratch.Write("d-10.stats", fine);
   Reload();
   AddStat("new");
   EXPECT_EQ(Read("new", 1040), kUnset);
   _depot->AddSample("e", "new", 1050, 1, 0);
   EXPECT_EQ(Read("new", 1040), kUnset);
}

TEST_F(StatsDepotTest, RollupsThatATruncationHasCutAreAddedAgain)
{
   Create({{10, 9}, {30, 3}});
   for (const char* const name : {"first", "second", "third"}) {
      AddStat(name);
   }
   _depot->AddSample("e", "third", 1020, 1, 0);
   _scratch.Write("d.idMap", _scratch.Read("d.idMap").substr(0, 5 * kRecordSize));
   Reload();
   EXPECT_EQ(Names(), (std::vector<std::string>{"second", "first"}));
   _depot->AddMissingRollups([](const std::string&, std::vector<StatsDepot::RollupType>& rollups) {
      rollups = kAverageMax;
      return true;
   });
   for (TimeStamp ts = 1020; ts <= 1080; ts += 10) {
      _depot->AddSample("e", "second", ts, 5, 0);
   }
   EXPECT_EQ(Read("second", 1050, "every30", StatsDepot::ROLLUP_MAX), 5u);
}

TEST_F(StatsDepotTest, PurgeRemovesStatsWithoutDataUpToItsLimit)
{
   Create({{10, 3}, {30, 2}});
   for (int i = 0; i < 5; ++i) {
      AddStat("stale" + std::to_string(i));
      _depot->AddSample("e", "stale" + std::to_string(i), 1000, 1, 0);
   }
   AddStat("fresh");
   Open(2);
   _depot->Load();
   AddStat("never sampled");
   size_t left = 7;
   for (TimeStamp ts = 1010; ts <= 1300; ts += 10) {
      _depot->AddSample("e", "fresh", ts, ts, 0);
      EXPECT_LE(left - Names().size(), 2u);
      left = Names().size();
   }
   EXPECT_EQ(Names(), (std::vector<std::string>{"fresh"}));
}

TEST_F(StatsDepotTest, SelfTestPassesAndNoticesAShortWrite)
{
   EXPECT_NO_THROW(TestScratchDepot(_logger.Get()));
   FaultyFiles files;
   files.failAt = 200;
   files.cutWrites = true;
   EXPECT_THROW(TestScratchDepot(_logger.Get()), Corvax::Exception);
}

} // namespace
