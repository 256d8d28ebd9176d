#include "metrix/statsMetadata.h"

#include "corvax/format.h"
#include "plexa/fault.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace {

using namespace Metrix;
using CounterInfo = StatsMetadata::CounterInfo;
using InvalidArgument = Plexa::Fault::InvalidArgument::Exception;

const std::string kCounters = DOCS_DIRECTORY "/counters.md";
const std::string kOperations = DOCS_DIRECTORY "/operations.md";

std::string Hex(int32_t id)
{
   char text[16];
   std::snprintf(text, sizeof text, "0x%05X", static_cast<unsigned>(id));
   return text;
}

template <class Items, class ToText>
std::string Join(const Items& items, const ToText& toText)
{
   std::string text;
   for (const auto& item : items) {
      text += (text.empty() ? "" : ", ") + std::string(toText(item));
   }
   return text;
}

std::string GetName(const CounterInfo& counter)
{
   return counter.groupInfo->key + "." + counter.nameInfo->key;
}

std::map<int32_t, Corvax::Ref<CounterInfo>> GetCounters(const StatsMetadata& metadata)
{
   Corvax::Ref<Plexa::DataArray<CounterInfo>> counters;
   metadata.GetAllCounters(counters);
   std::map<int32_t, Corvax::Ref<CounterInfo>> sorted;
   for (const auto& counter : *counters) {
      sorted[counter->key] = counter;
   }
   return sorted;
}

/// The stat, its type and the series that are read for the counter: all of them for the stat's own
/// counter.
std::string DescribeDepot(const StatsMetadata& metadata, int32_t id)
{
   static constexpr const char* kTypes[] = {"absolute", "delta", "rate"};
   static constexpr const char* kRollups[] = {"raw",     "average", "maximum",
                                              "minimum", "last",    "sum"};
   std::string statName;
   EXPECT_TRUE(metadata.GetStatName(id, statName));
   const auto* const data = metadata.GetStatsDepotData(statName);
   std::vector<StatsDepot::RollupType> rollups{StatsDepot::ROLLUP_NONE};
   if (data->GetId() == id) {
      rollups.insert(rollups.end(), data->GetRollups().begin(), data->GetRollups().end());
   } else {
      StatsMetadata::CounterId back = -1;
      EXPECT_TRUE(data->GetRollup(id, rollups.front()) &&
                  data->GetCounterId(rollups.front(), back));
      EXPECT_EQ(back, id);
   }
   return Corvax::Format("%1 (%2): %3", statName, kTypes[data->GetStatType()],
                         Join(rollups, [](auto rollup) { return kRollups[rollup]; }));
}

std::string DescribeCatalogue(const StatsMetadata& metadata)
{
   static constexpr const char* kTypes[] = {"absolute", "delta", "rate"};
   static constexpr const char* kRollups[] = {"average", "maximum",   "minimum",
                                              "latest",  "summation", "none"};
   std::string text;
   for (const auto& [id, counter] : GetCounters(metadata)) {
      text +=
         Corvax::Format("| %1 | %2 | %3 | %4 | %5 | %6 | %7 | %8 |\n", Hex(id), id,
                        GetName(*counter), counter->unitInfo->key, kTypes[counter->statsType],
                        kRollups[counter->rollupType], DescribeDepot(metadata, id),
                        Join(counter->associatedCounterId.value_or(std::vector<int32_t>{}), Hex));
   }
   return text;
}

std::string ReadFile(const std::string& path)
{
   std::ostringstream text;
   text << std::ifstream(path).rdbuf();
   return text.str();
}

/// The names in the first column of every table whose first heading is "Counter". A cell is a list
/// of names, with a remark in parentheses behind it.
std::vector<std::string> GetDocumentedNames()
{
   std::vector<std::string> names;
   std::istringstream lines(ReadFile(kOperations));
   bool isInTable = false;
   for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("| Counter |")) {
         isInTable = true;
      } else if (!line.starts_with("|")) {
         isInTable = false;
      } else if (isInTable && line.starts_with("| ")) {
         std::istringstream cell(line.substr(2, line.find_first_of("(|", 2) - 2));
         for (std::string name; std::getline(cell >> std::ws, name, ',');) {
            names.push_back(name.substr(0, name.find_last_not_of(' ') + 1));
         }
      }
   }
   return names;
}

TEST(StatsMetadataTest, DocumentListsTheCatalogue)
{
   const std::string catalogue = DescribeCatalogue(StatsMetadata());
   std::string document = ReadFile(kCounters);
   const size_t rows = document.find('\n', document.find("|---|")) + 1;
   if (std::getenv("METRIX_UPDATE_DOCS") != nullptr) {
      document.replace(rows, std::string::npos, catalogue);
      std::ofstream(kCounters) << document;
   }
   std::istringstream expected(catalogue);
   std::istringstream documented(document.substr(rows));
   constexpr char kHint[] =
      "docs/counters.md differs from the catalogue. Clients and depots know counters by these ids "
      "and names. If the change is intended, run metrixTest with METRIX_UPDATE_DOCS=1 in the "
      "environment to write the file again.";
   std::string found;
   for (std::string line; std::getline(expected, line);) {
      std::getline(documented, found);
      ASSERT_EQ(found, line) << kHint;
   }
   EXPECT_FALSE(std::getline(documented, found)) << "superfluous: " << found << "\n" << kHint;
}

TEST(StatsMetadataTest, EveryCounterHasARowInTheTableOfSources)
{
   std::set<std::string> undocumented;
   std::set<std::string> groups;
   for (const auto& [id, counter] : GetCounters(StatsMetadata())) {
      undocumented.insert(GetName(*counter));
      groups.insert(counter->groupInfo->key + ".*");
   }
   const std::set<std::string> known = undocumented;
   for (const std::string& name : GetDocumentedNames()) {
      EXPECT_TRUE(known.contains(name) || groups.contains(name))
         << "docs/operations.md: '" << name << "' is not a counter";
      undocumented.erase(name);
   }
   EXPECT_EQ(undocumented, std::set<std::string>{})
      << "docs/operations.md: no table has a row for these counters";
}

TEST(StatsMetadataTest, NamesStatsByGroupNameAndInstance)
{
   StatsMetadata metadata;
   const std::tuple<int, std::string, std::string> cases[] = {
      {0x00001, "", "cpu-usage"},
      {0x20004, "sd#a", "disk-numberRead#sd#a"},
      {0x40003, "host/x", "sys-resourceCpuUsage#host/x"},
   };
   for (const auto& [counterId, instance, expected] : cases) {
      std::string statName;
      EXPECT_TRUE(metadata.GetStatName(counterId, instance, statName));
      EXPECT_EQ(statName, expected);
      EXPECT_EQ(StatsMetadata::GetInstanceId(statName), instance);
   }
   std::string untouched = "untouched";
   EXPECT_FALSE(metadata.GetStatName(0x1001C, untouched));
   EXPECT_EQ(untouched, "untouched");
   EXPECT_EQ(metadata.GetStatsDepotData("cpu-nothing"), nullptr);
   EXPECT_THROW(metadata.IsCompositeCounter(0x7FFF), InvalidArgument);
}

} // namespace
