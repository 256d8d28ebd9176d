#include "managementApi/csvTable.h"

#include <map>

namespace ManagementApi {

namespace {

using Quen::PerformanceManager;

/// The text of a cell, quoted if it contains a separator or a quote.
std::string Quote(const std::string& text)
{
   if (text.find_first_of(",\"\r\n") == std::string::npos) {
      return text;
   }
   std::string quoted = "\"";
   for (const char c : text) {
      quoted += c == '"' ? "\"\"" : std::string(1, c);
   }
   return quoted + "\"";
}

} // namespace

std::string FormatCsvTable(const Plexa::DataArray<PerformanceManager::EntityMetricBase>& results,
                           const Counters& counters)
{
   std::string text = "time";
   std::map<Corvax::DateTime, std::map<size_t, int64_t>> lines; // by time, then by column
   size_t columns = 0;
   for (const auto& base : results) {
      const auto& result = dynamic_cast<const PerformanceManager::EntityMetric&>(*base);
      for (const auto& info : *result.sampleInfo) {
         lines[info->timestamp];
      }
      for (const auto& seriesBase : *result.value) {
         const auto& series = dynamic_cast<const PerformanceManager::IntSeries&>(*seriesBase);
         const std::string metric = FormatMetric(*series.id, counters);
         text +=
            "," + Quote(results.GetSize() > 1 ? result.entity->GetId() + "/" + metric : metric);
         for (size_t i = 0; i < series.value.size() && i < result.sampleInfo->GetSize(); ++i) {
            if (series.value[i] >= 0) {
               lines[(*result.sampleInfo)[i]->timestamp][columns] = series.value[i];
            }
         }
         ++columns;
      }
   }
   text += "\r\n";
   for (const auto& [time, cells] : lines) {
      text += time.ToString();
      for (size_t column = 0; column < columns; ++column) {
         const auto cell = cells.find(column);
         text += cell == cells.end() ? "," : "," + std::to_string(cell->second);
      }
      text += "\r\n";
   }
   return text;
}

} // namespace ManagementApi
