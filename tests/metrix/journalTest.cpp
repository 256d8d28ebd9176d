#include "metrix/journalEntries.h"
#include "metrix/journalReader.h"
#include "metrix/statsDepot.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/diskModel.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace Metrix;
using namespace JournalFormat;
using enum JournalReader::State;
using Corvax::Ref;

const std::string kFile = "/depot/d.journal.0"; ///< with the newest generation
constexpr TimeStamp kPeriod = 10;
constexpr TimeStamp kFirstCommit = 310; ///< of the newest generation
constexpr TimeStamp kLast = 360;
constexpr size_t kCommitsPos = 3 * kAlignment; ///< behind header, snapshot and its end
constexpr size_t kLastPos = kCommitsPos + 5 * kAlignment;
constexpr size_t kEnd = kLastPos + kAlignment;

/// A depot whose ring has wrapped, with a journal of six commits after its snapshot.
class JournalTest : public testing::Test {
protected:
   JournalTest()
   {
      _disk.Apply({.kind = Disk::Operation::DIRECTORY, .path = "/depot"});
      DiskModel files(_disk);
      Ref<StatsDepot> depot = New();
      depot->Create();
      depot->AddInterval("ten", kPeriod, 12);
      depot->CreateStat("e", "every", StatsDepot::STATTYPE_ABSOLUTE, 1, {});
      depot->CreateStat("e", "third", StatsDepot::STATTYPE_ABSOLUTE, 1, {});
      for (TimeStamp ts = kPeriod; ts <= kLast; ts += kPeriod) {
         if (ts == kFirstCommit) {
            depot = nullptr; // its lock, too
            depot = New();
            depot->Load();
         }
         Collect(*depot, ts);
      }
      _disk = files.disk;
      for (const auto& [path, file] : files.disk.GetNames()) {
         if (path.find(".journal.") != std::string::npos) { // without what is allocated ahead
            _disk.Apply({.kind = Disk::Operation::TRUNCATE, .file = file, .offset = kEnd});
         }
      }
      _disk = _disk.Kill();
      _bytes = _disk.GetContent(_disk.GetNames().at(kFile));
   }

   Ref<StatsDepot> New()
   {
      Ref<StatsDepot> depot;
      GetStatsDepot("/depot/", "d", _logger.Get(), 1000, depot, {30, 1});
      return depot;
   }

   static StatVal ValueAt(TimeStamp ts, StatVal stat) { return ts * 10 + stat; }

   static void Collect(StatsDepot& depot, TimeStamp ts)
   {
      const Corvax::Locker lock(&depot);
      depot.AddSample("e", "every", ts, ValueAt(ts, 1), 0);
      if (ts % (3 * kPeriod) == 0) {
         depot.AddSample("e", "third", ts, ValueAt(ts, 2), 0);
      }
   }

   static std::span<const std::byte> Span(const std::string& bytes)
   {
      return std::as_bytes(std::span(bytes.data(), bytes.size()));
   }

   /// The record at `pos` after `change`, with its checksum.
   std::string Remake(size_t pos, const std::function<void(Record&)>& change) const
   {
      Record record;
      DecodeRecord(Span(_bytes).subspan(pos), record);
      change(record);
      std::vector<std::byte> out;
      EncodeRecord(record, out);
      return {reinterpret_cast<const char*>(out.data()), out.size()};
   }

   /// The disk with another newest journal file.
   Disk With(const std::string& bytes) const
   {
      Disk disk = _disk;
      const size_t file = disk.GetNames().at(kFile);
      disk.Apply({.kind = Disk::Operation::TRUNCATE, .file = file, .offset = 0});
      disk.Apply({.kind = Disk::Operation::WRITE, .file = file, .bytes = bytes});
      return disk;
   }

   static JournalReader::State Read(const Disk& disk)
   {
      const DiskModel files(disk);
      JournalReader reader;
      reader.Read("/depot/d");
      return reader.GetState();
   }

   /// The newest column of the depot that is loaded. Nothing in it may be invented, neither then
   /// nor after its first change.
   TimeStamp Load(const Disk& disk)
   {
      DiskModel files(disk);
      Ref<StatsDepot> depot = New();
      depot->Load();
      const TimeStamp newest = depot->GetLatestTimeStamp();
      ExpectTrue(*depot);
      Collect(*depot, kLast + kPeriod);
      ExpectTrue(*depot);
      depot = nullptr;
      depot = New();
      depot->Load();
      ExpectTrue(*depot);
      EXPECT_EQ(depot->GetLatestTimeStamp(), kLast + kPeriod);
      return newest;
   }

   static void ExpectTrue(StatsDepot& depot)
   {
      for (TimeStamp ts = kPeriod; ts <= kLast + kPeriod; ts += kPeriod) {
         for (const auto& [name, stat] : {std::pair("every", 1), {"third", 2}}) {
            const StatVal value = depot.GetSample("e", name, ts, "", StatsDepot::ROLLUP_NONE);
            EXPECT_TRUE(value == kUnset || (value == ValueAt(ts, static_cast<StatVal>(stat)) &&
                                            (stat == 1 || ts % (3 * kPeriod) == 0)))
               << name << " at " << ts << " is " << value;
         }
      }
   }

   const Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   Disk _disk;
   std::string _bytes;
};

TEST_F(JournalTest, FlippedBitsAreDamageWhereTheRecordWasSynced)
{
   for (const size_t pos : {size_t{0}, 2 * kAlignment, kCommitsPos + 2 * kAlignment, kLastPos}) {
      const size_t length = Decode<uint32_t>(&Span(_bytes)[pos + kLengthPos]);
      for (size_t bit = 0; bit <= 8 * length; ++bit) { // one of them is in the padding
         std::string bytes = _bytes;
         bytes[pos + bit / 8] = static_cast<char>(bytes[pos + bit / 8] ^ 1 << bit % 8);
         const bool isOther = bit / 8 >= kGenerationPos && bit / 8 < kSequencePos;
         EXPECT_EQ(Read(With(bytes)), pos < kLastPos ? DAMAGED
                                      : isOther      ? WHOLE
                                                     : TORN)
            << "bit " << bit << " of the record at " << pos;
      }
      for (size_t cut = 0; pos == kLastPos && cut <= length; ++cut) {
         const bool isSeen = cut >= kPayloadPos && cut < length;
         EXPECT_EQ(Read(With(_bytes.substr(0, pos + cut))), isSeen ? TORN : WHOLE) << cut;
      }
   }
}

TEST_F(JournalTest, LoadingADamagedOneInventsNothing)
{
   const auto without = [&](size_t pos) {
      return _bytes.substr(0, pos) + std::string(kAlignment, '\0') +
             _bytes.substr(pos + kAlignment);
   };
   const auto behind = [&](uint64_t generations, uint64_t sequences, uint64_t synced) {
      JournalEntries entries;
      entries.AddColumn(0, kLast + 1);
      return _bytes + Remake(kLastPos, [&](Record& next) {
                next.generation += generations;
                next.sequence += sequences;
                next.syncedThrough = next.sequence * synced;
                next.payload = entries.GetParts()[0];
             });
   };
   std::vector<std::byte> version2 = EncodeHeader({});
   version2[0] = std::byte{2};
   const auto version = [&](Record& header) { header.payload = version2; };
   const struct {
      const char* name;
      std::string bytes;
      JournalReader::State state = WHOLE;
      TimeStamp newest = kLast;
   } damages[] = {
      {"none", _bytes},
      {"another generation's behind it", behind(-1, 1, 1)},
      {"a next one cut", behind(0, 1, 0).substr(0, kEnd + kPayloadPos), TORN},
      {"a sequence left out, not synced", behind(0, 2, 0), TORN},
      {"a sequence left out, synced", behind(0, 2, 1), DAMAGED},
      {"commit missing", without(kCommitsPos + 2 * kAlignment), DAMAGED, kFirstCommit + kPeriod},
      {"first commit missing", without(kCommitsPos), DAMAGED, kFirstCommit - kPeriod},
      // From here on the store's file alone counts, whose header has all columns.
      {"last commit missing", without(kLastPos)},
      {"last commit cut", _bytes.substr(0, kLastPos + kPayloadPos), TORN},
      {"end of the snapshot missing", without(2 * kAlignment), DAMAGED},
      {"header missing", without(0), DAMAGED},
      {"version", Remake(0, version) + _bytes.substr(kAlignment), UNREADABLE},
      {"header alone", _bytes.substr(0, kAlignment)},
      {"empty", ""},
   };
   for (const auto& damage : damages) {
      SCOPED_TRACE(damage.name);
      EXPECT_EQ(Read(With(damage.bytes)), damage.state);
      EXPECT_EQ(Load(With(damage.bytes)), damage.newest);
   }
}

TEST_F(JournalTest, ImpossibleEntriesAreRefusedWhateverTheirChecksum)
{
   const std::vector<std::byte> shortRow(10);
   const std::function<void(JournalEntries&)> impossible[] = {
      [](auto& entries) { entries.AddColumn(0, kLast - kPeriod); },
      [](auto& entries) { entries.AddColumn(0, kUnset); },
      [](auto& entries) { entries.AddColumn(1, kLast); },
      [](auto& entries) { entries.AddCell(0, 20, 0, 1); },
      [](auto& entries) { entries.AddCell(0, 0, INT32_MAX, 1); },
      [](auto& entries) { entries.AddRow(0, uint64_t{1} << 32, RowChange::FREED); },
      [&](auto& entries) { entries.AddRowImage(0, 0, shortRow); },
      [](auto& entries) { entries.AddIdsFreed({INT32_MAX}); },
   };
   for (const auto& add : impossible) {
      JournalEntries entries;
      add(entries);
      entries.AddColumn(0, kLast + 1); // not reached
      const auto change = [&](Record& record) { record.payload = entries.GetParts()[0]; };
      EXPECT_EQ(Load(With(_bytes.substr(0, kLastPos) + Remake(kLastPos, change))), kLast);
   }
}

} // namespace
