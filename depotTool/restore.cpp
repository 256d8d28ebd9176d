#include "depotTool/dump.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"
#include "depotTool/depotCopy.h"
#include "depotTool/description.h"
#include "depotTool/dumpFormat.h"
#include "depotTool/interruption.h"
#include "metrix/idMapFormat.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <optional>
#include <tuple>

namespace DepotTool {

namespace {

using Corvax::Format;
using Metrix::kUnset;

using Fields = std::vector<std::string_view>;

constexpr size_t kBlockBytes = size_t{1} << 16;

/// Thrown where a line is wrong; the line's number is added further up.
struct BadLine {
   std::string reason;
};

class LineReader {
public:
   explicit LineReader(const ByteSource& source) : _source(source) {}

   /// Without its end; nothing at the end of the text. Valid until the next call.
   std::optional<std::string_view> Next()
   {
      size_t end = _text.find('\n', _pos);
      while (end == std::string::npos) {
         _text.erase(0, _pos);
         _pos = 0;
         const size_t before = _text.size();
         _text.resize(before + kBlockBytes);
         _text.resize(before + _source(_text.data() + before, kBlockBytes));
         if (_text.size() == before) {
            return std::nullopt; // a last line without its end is cut off, too
         }
         ThrowIfInterrupted();
         end = _text.find('\n', before);
      }
      const std::string_view line(&_text[_pos], end - _pos);
      _pos = end + 1;
      ++_number;
      return line;
   }
   uint64_t GetNumber() const { return _number; }

private:
   const ByteSource& _source;
   std::string _text;
   size_t _pos = 0;
   uint64_t _number = 0;
};

void Split(std::string_view line, Fields& fields)
{
   fields.clear();
   for (;;) {
      const size_t space = line.find(' ');
      fields.push_back(line.substr(0, space));
      if (space == std::string_view::npos) {
         return;
      }
      line.remove_prefix(space + 1);
   }
}

template <class Number>
Number ToNumber(std::string_view text)
{
   Number number = 0;
   const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
   if (error != std::errc() || end != text.data() + text.size()) {
      throw BadLine{Format("'%1' is not a number, or too large", text)};
   }
   return number;
}

std::string ToName(std::string_view text)
{
   std::string name;
   if (!DumpFormat::Unescape(text, name) || name.empty() ||
       name.size() > Metrix::IdMapFormat::kMaxTextSize || name.find('\0') != std::string::npos) {
      throw BadLine{Format("'%1' is not an escaped name of 1 to 255 bytes", text)};
   }
   return name;
}

/// The index of `name` in a table of names.
template <class Table, class GetName>
size_t FindIndex(const Table& table, std::string_view name, GetName getName)
{
   const auto found = std::ranges::find(table, name, getName);
   if (found == table.end()) {
      throw BadLine{Format("'%1' is not known", name)};
   }
   return static_cast<size_t>(found - table.begin());
}

/// An interval while it is restored.
struct RestoredInterval {
   IntervalEntry entry;
   std::vector<TimeStamp> stamps;
   std::optional<StoreWriter> writer;
};

class Restorer {
public:
   explicit Restorer(const DepotPaths& depot) : _depot(depot) {}

   void Add(const Fields& fields)
   {
      const std::string_view word = fields.front();
      if (_hasEnded) {
         throw BadLine{"it follows the end"};
      }
      if (word == DumpFormat::kInterval) {
         AddInterval(fields);
      } else if (word == DumpFormat::kColumns) {
         AddColumns(fields);
      } else if (word == DumpFormat::kStat) {
         AddStat(fields);
      } else if (word == DumpFormat::kSamples) {
         SelectSeries(fields);
      } else if (word == DumpFormat::kEnd) {
         End(fields);
      } else {
         AddSamples(fields);
      }
   }
   bool HasEnded() const { return _hasEnded; }

private:
   static void Expect(bool condition, const char* reason)
   {
      if (!condition) {
         throw BadLine{reason};
      }
   }

   void AddInterval(const Fields& fields)
   {
      Expect(!_idMap && fields.size() == 4, "intervals have 3 fields and come before the stats");
      IntervalEntry entry{ToName(fields[1]), "", ToNumber<int32_t>(fields[2]),
                          ToNumber<int32_t>(fields[3])};
      _intervals.push_back({std::move(entry), {}, std::nullopt});
      std::vector<IntervalEntry> entries;
      for (const RestoredInterval& interval : _intervals) {
         entries.push_back(interval.entry);
      }
      CheckIntervals(entries);
   }

   void AddColumns(const Fields& fields)
   {
      Expect(!_idMap && !_intervals.empty() && fields.size() == 3,
             "columns have 2 fields and follow their interval");
      auto& [entry, stamps, writer] = _intervals.back();
      const auto period = static_cast<uint64_t>(entry.periodSec);
      const auto first = ToNumber<TimeStamp>(fields[1]);
      const auto count = ToNumber<uint64_t>(fields[2]);
      Expect(first % period == 0 && first < kUnset / 2, "a column is a multiple of the period");
      Expect(stamps.empty() || first > stamps.back(), "columns come oldest first");
      Expect(count <= static_cast<uint64_t>(entry.numSamples) - stamps.size(),
             "the interval has fewer columns");
      for (uint64_t i = 0; i < count; ++i) {
         stamps.push_back(first + i * period);
      }
   }

   void OpenFiles()
   {
      Expect(!_intervals.empty(), "a depot has an interval");
      for (auto& [entry, stamps, writer] : _intervals) {
         writer.emplace(_depot.GetStore(entry.periodSec), static_cast<uint32_t>(entry.numSamples),
                        entry.periodSec, stamps);
      }
      _idMap = Corvax::System::GetFactory().NewFileHandle();
      _idMap->Open(_depot.GetIdMap(), Corvax::FILE_WRITE, Corvax::FileCreation::CREATE_ALWAYS);
   }

   void AddStat(const Fields& fields)
   {
      Expect(fields.size() >= 6, "a stat has entity, name, type, factor and rollups");
      if (!_idMap) {
         OpenFiles();
      }
      WriteStat();
      Stat stat{ToName(fields[1]),
                ToName(fields[2]),
                static_cast<int32_t>(FindIndex(kStatTypes, fields[3], std::identity())),
                ToNumber<int32_t>(fields[4]),
                {}};
      Expect(_statCount == 0 ||
                std::tie(_stat.entityId, _stat.statName) < std::tie(stat.entityId, stat.statName),
             "stats are sorted by entity and name, each once");
      for (size_t i = 5; i < fields.size(); ++i) {
         const auto rollup = static_cast<int32_t>(FindIndex(kRollups, fields[i], &Rollup::name));
         Expect(stat.series.empty() ? rollup == 0 : rollup > stat.series.back().rollup,
                "rollups are 'none' and then others, each once and in order");
         stat.series.push_back({rollup, 0});
      }
      _stat = std::move(stat);
      ++_statCount;
      _values.assign(_stat.series.size() * _intervals.size(), {});
      _selected = nullptr;
   }

   std::vector<StatVal>& GetValues(size_t series, size_t interval)
   {
      return _values[series * _intervals.size() + interval];
   }

   void SelectSeries(const Fields& fields)
   {
      Expect(_statCount > 0 && fields.size() == 3, "samples have 2 fields and follow their stat");
      const std::string name = ToName(fields[1]);
      const size_t interval = FindIndex(
         _intervals, name, [](const RestoredInterval& i) -> const auto& { return i.entry.name; });
      const size_t series = FindIndex(_stat.series, fields[2], [](const Series& s) {
         return kRollups[static_cast<size_t>(s.rollup)].name;
      });
      _selectedInterval = &_intervals[interval];
      _selected = &GetValues(series, interval);
      _selected->assign(_selectedInterval->stamps.size(), kUnset);
   }

   void AddSamples(const Fields& fields)
   {
      const auto first = ToNumber<TimeStamp>(fields[0]);
      Expect(_selected != nullptr && fields.size() >= 2,
             "no series is selected, or no value given");
      const auto& [entry, stamps, writer] = *_selectedInterval;
      for (size_t i = 1; i < fields.size(); ++i) {
         const TimeStamp stamp = first + (i - 1) * static_cast<uint64_t>(entry.periodSec);
         const auto column = std::ranges::lower_bound(stamps, stamp);
         Expect(column != stamps.end() && *column == stamp, "the interval has no such column");
         (*_selected)[static_cast<size_t>(column - stamps.begin())] = ToNumber<StatVal>(fields[i]);
      }
   }

   /// Ids are given in the order of the stats, so all files are written from front to back.
   void WriteStat()
   {
      for (size_t s = 0; _statCount > 0 && s < _stat.series.size(); ++s) {
         std::vector<std::byte> record(Metrix::IdMapFormat::kRecordSize);
         Metrix::IdMapFormat::EncodeRecord({_stat.entityId, _stat.statName, _stat.series[s].rollup,
                                            _stat.statType, _stat.scalingFactor},
                                           record.data());
         _records.insert(_records.end(), record.begin(), record.end());
         for (size_t i = 0; i < _intervals.size(); ++i) {
            const std::vector<StatVal>& values = GetValues(s, i);
            const auto last =
               std::find_if(values.rbegin(), values.rend(), [](StatVal v) { return v != kUnset; });
            if (last == values.rend()) {
               _intervals[i].writer->AddFreeRow();
            } else {
               const auto newest = static_cast<size_t>(values.rend() - last) - 1;
               _intervals[i].writer->AddRow(values, _intervals[i].stamps[newest]);
            }
         }
      }
      if (_records.size() >= kBlockBytes) {
         WriteRecords();
      }
   }

   void WriteRecords()
   {
      _idMap->WriteAll(_records.data(), _records.size());
      _records.clear();
   }

   void End(const Fields& fields)
   {
      Expect(fields.size() == 2 && ToNumber<uint64_t>(fields[1]) == _statCount,
             "the number of stats is not the one of this line");
      if (!_idMap) {
         OpenFiles();
      }
      WriteStat();
      WriteRecords();
      _idMap->Close();
      std::vector<IntervalEntry> entries;
      for (auto& [entry, stamps, writer] : _intervals) {
         writer->Finish();
         entries.push_back(entry);
      }
      SyncDepot(_depot);
      WriteDescription(_depot, _depot, entries); // last: without it there is no depot
      Corvax::System::GetFactory().SyncDirectory(_depot.dir);
      _hasEnded = true;
   }

   const DepotPaths& _depot;
   std::vector<RestoredInterval> _intervals;
   Corvax::Ref<Corvax::FileHandle> _idMap; ///< open since the first stat
   std::vector<std::byte> _records;        ///< not written yet
   Stat _stat;                             ///< the last one, not written yet
   uint64_t _statCount = 0;
   std::vector<std::vector<StatVal>> _values; ///< of _stat: by series, then interval
   RestoredInterval* _selectedInterval = nullptr;
   std::vector<StatVal>* _selected = nullptr;
   bool _hasEnded = false;
};

void ReadDump(const ByteSource& source, Restorer& restorer)
{
   LineReader lines(source);
   try {
      if (lines.Next() != DumpFormat::kFirstLine) {
         throw BadLine{Format("it is not '%1'", DumpFormat::kFirstLine)};
      }
      Fields fields;
      while (const std::optional<std::string_view> line = lines.Next()) {
         Split(*line, fields);
         restorer.Add(fields);
      }
   } catch (const BadLine& bad) {
      throw Corvax::Exception(Format("line %1 of the dump: %2", lines.GetNumber(), bad.reason));
   } catch (const Corvax::InvalidArgumentException& e) {
      throw Corvax::Exception(Format("line %1 of the dump: %2", lines.GetNumber(), e.GetMessage()));
   }
   if (!restorer.HasEnded()) {
      throw Corvax::Exception(
         Format("the dump is cut off after line %1: it has no end", lines.GetNumber()));
   }
}

} // namespace

void Restore(const ByteSource& source, const DepotPaths& depot)
{
   if (depot.HasDepot()) {
      throw Corvax::Exception(Format("there is a depot %1 in %2 already: remove it or choose "
                                     "another name",
                                     depot.name, depot.dir));
   }
   try {
      Restorer restorer(depot);
      ReadDump(source, restorer);
   } catch (...) {
      RemoveCopy(depot);
      throw;
   }
}

} // namespace DepotTool
