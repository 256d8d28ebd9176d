#include "depotTool/statTable.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"

#include <algorithm>
#include <limits>
#include <map>
#include <utility>

namespace DepotTool {

namespace {

using Corvax::Format;
using Metrix::IdMapFile;
using Metrix::IdMapFormat::kRecordSize;
using Metrix::IdMapFormat::kTextFieldSize;
using Metrix::IdMapFormat::Record;

constexpr uint32_t kNoOwner = UINT32_MAX;

using StatMap = std::map<std::pair<std::string, std::string>, Stat>;

std::string At(StatId id)
{
   return Format("record %1, offset %2", id, id * kRecordSize);
}

/// What is wrong with a record that is not free; empty if nothing is.
std::string FindDamage(const Record& record)
{
   if (record.statName.empty()) {
      return "it has no stat name";
   }
   if (record.entityId.size() == kTextFieldSize || record.statName.size() == kTextFieldSize) {
      return "no zero byte ends its entity id or stat name";
   }
   if (record.rollup < 0 || record.rollup >= std::ssize(kRollups)) {
      return Format("its rollup is %1", record.rollup);
   }
   if (record.statType < 0 || record.statType >= std::ssize(kStatTypes)) {
      return Format("its stat type is %1", record.statType);
   }
   return {};
}

/// The stats of the records, as the depot reads them, with what is wrong reported.
class RecordReader {
public:
   explicit RecordReader(const Mending& mending) : _mending(mending) {}

   void Add(StatId id, const Record& record)
   {
      if (record.entityId.empty()) {
         return;
      }
      const std::string damage = FindDamage(record);
      if (!damage.empty()) {
         Clear("record.damaged", id, damage);
         return;
      }
      Stat& stat = _stats[{std::string(record.entityId), std::string(record.statName)}];
      const auto twin = std::ranges::find(stat.series, record.rollup, &Series::rollup);
      if (twin != stat.series.end()) {
         Clear("record.duplicate", id,
               Format("%1 of %2 has this series in record %3 already", record.statName,
                      record.entityId, twin->id));
         return;
      }
      if (stat.series.empty()) {
         stat = {std::string(record.entityId),
                 std::string(record.statName),
                 record.statType,
                 record.scalingFactor,
                 {}};
      } else if (stat.statType != record.statType || stat.scalingFactor != record.scalingFactor) {
         Report("record.mismatch", id,
                Format("%1 has type %2 and factor %3 here, but %4 and %5 in its first record",
                       stat.GetName(), record.statType, record.scalingFactor, stat.statType,
                       stat.scalingFactor),
                "it gets those of the first record");
         mismatches.push_back(id);
      }
      stat.series.push_back({record.rollup, id});
   }

   /// The stats that are whole, with their series in order.
   std::vector<Stat> TakeStats()
   {
      std::vector<Stat> stats;
      for (auto& [key, stat] : _stats) {
         std::ranges::sort(stat.series);
         if (!stat.series.empty() && stat.series.front().rollup == StatsDepot::ROLLUP_NONE) {
            stats.push_back(std::move(stat));
            continue;
         }
         for (const Series& series : stat.series) {
            Clear("stat.noRawSeries", series.id,
                  Format("%1 has the series %2, but no raw series", stat.GetName(),
                         kRollups[static_cast<size_t>(series.rollup)].name));
         }
      }
      std::ranges::sort(toClear);
      return stats;
   }

   std::vector<StatId> toClear;
   std::vector<StatId> mismatches;

private:
   void Report(const char* kind, StatId id, std::string what, std::string remedy) const
   {
      _mending.AddFault(kind, _mending.files.GetIdMap(), At(id), std::move(what),
                        std::move(remedy));
   }
   void Clear(const char* kind, StatId id, std::string what)
   {
      Report(kind, id, std::move(what), "the record is cleared");
      toClear.push_back(id);
   }

   const Mending& _mending;
   StatMap _stats;
};

/// Cuts an incomplete record off. Returns the number of records.
uint64_t MendSize(const Mending& mending)
{
   const std::string path = mending.files.GetIdMap();
   const auto file = Corvax::System::GetFactory().NewFileHandle();
   file->Open(path, Corvax::FILE_READ_WRITE, Corvax::FileCreation::OPEN_EXISTING);
   const uint64_t size = file->GetSize();
   const uint64_t records = size / kRecordSize;
   if (records > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
      throw Corvax::FileFormatException("too many records in " + mending.GetOriginOf(path));
   }
   if (size % kRecordSize != 0) {
      mending.AddFault("idMap.partialRecord", path, At(records),
                       Format("the file ends with %1 bytes of a record", size % kRecordSize),
                       "they are cut off");
      file->Truncate(records * kRecordSize);
   }
   return records;
}

IdMapFile::Entry MakeEntry(const Stat& stat, const Series& series)
{
   return {series.id,
           {stat.entityId, stat.statName, series.rollup, stat.statType, stat.scalingFactor}};
}

bool HasRollup(const Stat& stat, int32_t rollup)
{
   return std::ranges::find(stat.series, rollup, &Series::rollup) != stat.series.end();
}

} // namespace

void MendIdMapFile(const Mending& mending)
{
   const std::string path = mending.files.GetIdMap();
   if (!Corvax::System::GetFactory().Exists(path)) {
      mending.AddFault("idMap.missing", path, "",
                       "the file is missing: no row of the stores can be told from another",
                       "an empty one is created, and all rows are freed");
      IdMapFile().Create(path);
   }
}

void StatTable::Load(const Mending& mending)
{
   const uint64_t records = MendSize(mending);
   IdMapFile file;
   file.Open(mending.files.GetIdMap(), false);
   RecordReader reader(mending);
   file.ReadRecords(records,
                    [&reader](StatId id, const Record& record) { reader.Add(id, record); });
   _stats = reader.TakeStats();
   Index(records);
   file.ClearRecords(reader.toClear);
   for (const StatId id : reader.mismatches) {
      const Stat* const stat = Find(id);
      if (stat != nullptr) {
         file.WriteRecords({MakeEntry(*stat, *std::ranges::find(stat->series, id, &Series::id))});
      }
   }
}

void StatTable::Index(uint64_t recordCount)
{
   _owners.assign(recordCount, kNoOwner);
   for (uint32_t i = 0; i < _stats.size(); ++i) {
      for (const Series& series : _stats[i].series) {
         _owners[series.id] = i;
      }
   }
   _nextFree = 0;
}

const Stat* StatTable::Find(StatId id) const
{
   return id < _owners.size() && _owners[id] != kNoOwner ? &_stats[_owners[id]] : nullptr;
}

StatId StatTable::AllocId()
{
   while (_nextFree < _owners.size() && _owners[_nextFree] != kNoOwner) {
      ++_nextFree;
   }
   return _nextFree++;
}

void StatTable::AddMissingRollups(const Mending& mending)
{
   std::map<std::string, std::array<size_t, kRollups.size()>> countsByStem;
   std::map<std::string, size_t> statsByStem;
   for (const Stat& stat : _stats) {
      const std::string stem = stat.GetStem();
      ++statsByStem[stem];
      for (const Series& series : stat.series) {
         ++countsByStem[stem][static_cast<size_t>(series.rollup)];
      }
   }
   std::vector<IdMapFile::Entry> added;
   for (Stat& stat : _stats) {
      const std::string stem = stat.GetStem();
      for (int32_t rollup = 0; rollup < std::ssize(kRollups); ++rollup) {
         const auto [name, function] = kRollups[static_cast<size_t>(rollup)];
         const size_t count = countsByStem[stem][static_cast<size_t>(rollup)];
         if (count * 2 <= statsByStem[stem] || HasRollup(stat, rollup)) {
            continue;
         }
         mending.AddFault("stat.noRollup", mending.files.GetIdMap(), At(stat.series.front().id),
                          Format("%1 has no series %2, which %3 of the %4 stats %5 have",
                                 stat.GetName(), name, count, statsByStem[stem], stem),
                          "a record is added");
         stat.series.push_back({rollup, AllocId()});
         added.push_back(MakeEntry(stat, stat.series.back()));
      }
      std::ranges::sort(stat.series);
   }
   if (added.empty()) {
      return;
   }
   IdMapFile file;
   file.Open(mending.files.GetIdMap(), false);
   file.WriteRecords(added);
   Index(std::max<uint64_t>(_owners.size(), added.back().id + 1));
}

} // namespace DepotTool
