#include "agentctl/query.h"

#include "agentctl/metricNames.h"
#include "agentctl/textTable.h"
#include "agentctl/valueFormat.h"
#include "console/printable.h"

#include "corvax/exception.h"

#include <algorithm>

namespace Agentctl {

namespace {

using Corvax::DateTime;

/// The samples of one entity as a growing table. Each row is shown once: a response's rows up to
/// the newest one shown are skipped.
class SampleTable {
public:
   SampleTable(Api& api, bool utc) : _names(api.GetCounters()), _utc(utc) {}

   /// The new rows of a response as text, after a line of titles if the metrics have changed.
   std::string TakeRows(const std::vector<EntitySeries>& response)
   {
      std::string text;
      for (const EntitySeries& entity : response) {
         text += TakeRows(entity);
      }
      return text;
   }

   std::optional<DateTime> GetNewest() const { return _newest; }

private:
   std::string TakeRows(const EntitySeries& response)
   {
      std::vector<Metric> metrics;
      metrics.reserve(response.series.size());
      for (const Series& series : response.series) {
         metrics.push_back(series.metric);
      }
      bool any = false;
      for (size_t row = 0; row < response.times.size(); ++row) {
         if (metrics.empty() || (_newest && response.times[row] <= *_newest)) {
            continue;
         }
         if (!_table || metrics != _metrics) {
            StartTable(metrics);
         }
         AddRow(response, row);
         any = true;
      }
      return any ? _table->TakeText() : std::string();
   }

   void StartTable(const std::vector<Metric>& metrics)
   {
      std::vector<TextTable::Column> columns = {{_utc ? "time (UTC)" : "time", false}};
      for (const Metric& metric : metrics) {
         columns.push_back({_names.GetName(metric) + " (" + _names.GetUnit(metric) + ")", true});
      }
      _table.emplace(std::move(columns));
      _metrics = metrics;
   }

   void AddRow(const EntitySeries& response, size_t row)
   {
      std::vector<std::string> cells = {FormatTime(response.times[row], _utc)};
      for (const Series& series : response.series) {
         cells.push_back(_names.FormatValue(series.metric, series.values[row]));
      }
      _table->AddRow(cells);
      _newest = response.times[row];
   }

   const MetricNames _names;
   const bool _utc;
   std::vector<Metric> _metrics;
   std::optional<TextTable> _table;
   std::optional<DateTime> _newest;
};

[[noreturn]] void FailNoData(const QuerySpec& spec)
{
   throw Corvax::NotFoundException("there is no data of " + spec.entityId);
}

void QueryTable(Api& api, QuerySpec spec, const Options& options, Output& output,
                const WaitFunction& wait)
{
   SampleTable table(api, options.utc);
   output.Write(table.TakeRows(api.Query(spec)));
   if (!options.watch) {
      if (!table.GetNewest()) {
         FailNoData(spec);
      }
      return;
   }
   const int64_t pollSec =
      spec.intervalSec > 0 ? spec.intervalSec : api.GetRefreshRate(spec.entityId);
   while (wait(GetSecondsToNext(table.GetNewest(), pollSec))) {
      if (table.GetNewest()) {
         spec.from = table.GetNewest()->ToString();
         spec.maxSample.reset(); // --max limits the first request only
      }
      output.Write(table.TakeRows(api.Query(spec)));
   }
}

/// Escapes each line separately, which keeps the line ends.
std::string ToPrintableLines(std::string_view csv)
{
   std::string text;
   while (!csv.empty()) {
      const size_t end = std::min(csv.find('\n'), csv.size());
      std::string_view line = csv.substr(0, end);
      csv.remove_prefix(std::min(end + 1, csv.size()));
      if (line.ends_with('\r')) {
         line.remove_suffix(1);
      }
      text += Console::Printable(line) + "\n";
   }
   return text;
}

void QueryCsv(Api& api, const QuerySpec& spec, Output& output)
{
   const std::string csv = api.QueryCsv(spec);
   output.Write(output.IsTerminal() ? ToPrintableLines(csv) : csv);
   const size_t titlesEnd = csv.find('\n');
   if (titlesEnd == std::string::npos || titlesEnd + 1 == csv.size()) {
      FailNoData(spec);
   }
}

void QueryJson(Api& api, const QuerySpec& spec, Output& output)
{
   bool hasData = false;
   output.Write(api.QueryJson(spec, hasData) + "\n");
   if (!hasData) {
      FailNoData(spec);
   }
}

} // namespace

void RunQuery(Api& api, const Options& options, Output& output, const WaitFunction& wait)
{
   const QuerySpec spec = {options.entityId,
                           options.metrics,
                           options.from,
                           options.to,
                           options.maxSample,
                           options.intervalSec ? *options.intervalSec
                                               : api.GetRefreshRate(options.entityId)};
   switch (options.format) {
   case QueryFormat::TABLE:
      return QueryTable(api, spec, options, output, wait);
   case QueryFormat::CSV:
      return QueryCsv(api, spec, output);
   case QueryFormat::JSON:
      return QueryJson(api, spec, output);
   }
}

} // namespace Agentctl
