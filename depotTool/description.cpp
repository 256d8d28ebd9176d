#include "depotTool/description.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"
#include "corvax/xmlConfig.h"
#include "depotTool/storeImage.h"

#include <set>

namespace DepotTool {

namespace {

using Corvax::Format;
using Corvax::InvalidArgumentException;

constexpr int32_t kMostSamples = 1 << 20;

IntervalEntry ReadInterval(const Corvax::XmlConfig& config, const std::string& element)
{
   const std::string path = "intervals/" + element + "/";
   IntervalEntry entry;
   if (!config.Get(path + "name", entry.name) || !config.Get(path + "storeName", entry.storePath) ||
       !config.Get(path + "samplingPeriod", entry.periodSec) ||
       !config.Get(path + "numSamples", entry.numSamples)) {
      throw Corvax::FileFormatException(element +
                                        " lacks name, storeName, samplingPeriod or numSamples");
   }
   return entry;
}

/// The names that the agent gives; others by their period.
std::string MakeName(int32_t periodSec, bool isFinest)
{
   if (isFinest) {
      return "RealTime";
   }
   return periodSec % 60 == 0 ? Format("%1min", periodSec / 60) : Format("%1s", periodSec);
}

std::vector<IntervalEntry> DeriveFromStores(const DepotPaths& files)
{
   std::vector<IntervalEntry> intervals;
   for (const int32_t periodSec : files.FindStores()) {
      const std::string path = files.GetStore(periodSec);
      const StoreHeader header = ReadStoreHeader(path);
      const bool follows = intervals.empty() || periodSec % intervals.back().periodSec == 0;
      if (follows && header.numSamples <= kMostSamples &&
          FitsStore(path, header.numSamples, periodSec)) {
         intervals.push_back({MakeName(periodSec, intervals.empty()), path, periodSec,
                              static_cast<int32_t>(header.numSamples)});
      }
   }
   return intervals;
}

/// Whether the two paths lead to one file; false if one of them leads nowhere.
bool IsSameFile(const std::string& path, const std::string& other)
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   if (!factory.Exists(path)) {
      return false;
   }
   const auto file = factory.NewFileHandle();
   file->Open(path, Corvax::FILE_READ, Corvax::FileCreation::OPEN_EXISTING);
   return file->IsAt(other);
}

} // namespace

std::vector<IntervalEntry> ReadDescription(const DepotPaths& files)
{
   Corvax::Ref<Corvax::XmlConfig> config;
   Corvax::GetXmlConfig(files.GetDescription(), config);
   config->Read();
   std::vector<std::string> elements;
   if (!config->GetChildren("intervals", "interval", elements)) {
      throw Corvax::FileFormatException("it has no interval");
   }
   std::vector<IntervalEntry> intervals;
   for (const std::string& element : elements) {
      intervals.push_back(ReadInterval(*config, element));
   }
   CheckIntervals(intervals);
   return intervals;
}

void WriteDescription(const DepotPaths& files, const DepotPaths& home,
                      const std::vector<IntervalEntry>& intervals)
{
   Corvax::Ref<Corvax::XmlConfig> config;
   Corvax::GetXmlConfig(files.GetDescription(), config);
   for (const IntervalEntry& interval : intervals) {
      const int index = config->AddElement("intervals", "interval");
      const std::string path = Format("intervals/interval[%1]/", index);
      config->Set(path + "name", interval.name);
      config->Set(path + "storeName", home.GetStore(interval.periodSec));
      config->Set(path + "samplingPeriod", Format("%1", interval.periodSec));
      config->Set(path + "numSamples", Format("%1", interval.numSamples));
   }
   config->Save();
}

void CheckIntervals(const std::vector<IntervalEntry>& intervals)
{
   std::set<std::string> names;
   int32_t finerSec = 0;
   for (const auto& [name, storePath, periodSec, numSamples] : intervals) {
      if (name.empty() || !names.insert(name).second) {
         throw InvalidArgumentException("an interval's name is empty or given twice");
      }
      if (periodSec < 1 || numSamples < 1 || numSamples > kMostSamples) {
         throw InvalidArgumentException(
            Format("interval %1 has a period of %2 s and %3 samples", name, periodSec, numSamples));
      }
      if (finerSec > 0 && (periodSec <= finerSec || periodSec % finerSec != 0)) {
         throw InvalidArgumentException(
            Format("the period of interval %1, %2 s, is not a multiple of the one before, %3 s",
                   name, periodSec, finerSec));
      }
      finerSec = periodSec;
   }
}

std::vector<IntervalEntry> ExamineDescription(const Mending& mending)
{
   const std::string path = mending.files.GetDescription();
   std::vector<IntervalEntry> intervals;
   try {
      intervals = ReadDescription(mending.files);
   } catch (const Corvax::Exception& e) {
      intervals = DeriveFromStores(mending.files);
      if (intervals.empty()) {
         throw Corvax::FileFormatException(
            Format("%1 cannot be used (%2), and neither can any store: there is no depot left",
                   mending.GetOriginOf(path), e.GetMessage()));
      }
      mending.AddFault("description.unusable", path, "", "cannot be used: " + e.GetMessage(),
                       Format("it is written anew from the %1 stores", intervals.size()));
      return intervals;
   }
   for (const IntervalEntry& interval : intervals) {
      const std::string right = mending.origin.GetStore(interval.periodSec);
      if (interval.storePath == right || IsSameFile(right, interval.storePath)) {
         continue;
      }
      const std::string what =
         Format("interval %1 has its store elsewhere: %2", interval.name, interval.storePath);
      if (Corvax::System::GetFactory().Exists(mending.files.GetStore(interval.periodSec))) {
         mending.AddNote("description.storePath", path, what,
                         "nothing: the depot uses the one beside the description");
      } else {
         mending.AddFault("description.storePath", path, "", what,
                          "the path becomes " + mending.home.GetStore(interval.periodSec));
      }
   }
   return intervals;
}

} // namespace DepotTool
