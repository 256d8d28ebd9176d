#pragma once

#include "depotTool/commands.h"
#include "metrix/idMapFormat.h"
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
#include <sstream>

namespace DepotTool {

using Metrix::StatsDepot;
using Metrix::TimeStamp;
using Metrix::IdMapFormat::kRecordSize;

constexpr unsigned kFineSamples = 12;  // of 20 s
constexpr unsigned kCoarseSamples = 5; // of 60 s
constexpr TimeStamp kFirst = 6000;
constexpr TimeStamp kLast = 6400; // in column 8 of the fine store, whose ring has wrapped

/// Offset of a field of a record.
inline size_t RecordPos(size_t id, size_t field)
{
   return id * kRecordSize + field;
}

/// Offset of a field of a row in the fine store.
inline size_t RowPos(size_t id, size_t field)
{
   return Metrix::StoreFormat::RowsPos(kFineSamples) +
          id * Metrix::StoreFormat::RowSize(kFineSamples) + field;
}

inline std::string Encode64(uint64_t value)
{
   std::string bytes(8, '\0');
   Metrix::Encode(value, reinterpret_cast<std::byte*>(bytes.data()));
   return bytes;
}

/// A damage and what check finds then.
struct Case {
   const char* name;
   const char* found;
   std::function<void()> plant;
};

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
   /// The new text is as long as the old one.
   void Replace(const std::string& file, const std::string& text, const std::string& by)
   {
      Poke(file, _scratch.Read(file).find(text), by);
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
   /// Plants a damage in a new depot; check finds it and leaves the depot as it is.
   void PlantAndCheck(const Case& damage, const Metrix::JournalOptions& journal = {})
   {
      for (const auto& [file, content] : _scratch.ReadAll()) {
         Delete(file);
      }
      WriteDepot("mem-used", journal);
      damage.plant();
      const auto before = _scratch.ReadAll();
      EXPECT_EQ(Check(), damage.found) << _out;
      EXPECT_EQ(_scratch.ReadAll(), before);
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
   const Scratch _scratch;
   ManualClock _clock;
   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   std::string _out;
};

/// Calls a function when every third file is opened.
class BusyFiles : public FaultyFiles {
public:
   explicit BusyFiles(std::function<void()> change) : _change(std::move(change)) {}
   int changes = 0; ///< how often
   Corvax::Ref<Corvax::FileHandle> NewFileHandle() override
   {
      if (!_isChanging && ++_opened % 3 == 0 && changes > 0) {
         --changes;
         _isChanging = true;
         _change();
         _isChanging = false;
      }
      return FaultyFiles::NewFileHandle();
   }

private:
   const std::function<void()> _change;
   int _opened = 0;
   bool _isChanging = false;
};

} // namespace DepotTool
