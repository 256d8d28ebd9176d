#include "managementApi/apiJson.h"

#include <algorithm>
#include <charconv>

namespace ManagementApi {

namespace {

using Quen::PerformanceManager;

std::string ToText(const Json& json)
{
   return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void AppendNumber(std::string& text, int64_t number)
{
   char digits[24];
   const auto end = std::to_chars(digits, digits + sizeof digits, number);
   text.append(digits, end.ptr);
}

void AppendText(std::string& text, std::string_view value)
{
   const bool isPlain = std::ranges::all_of(
      value, [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
   if (isPlain) {
      text += '"';
      text += value;
      text += '"';
   } else {
      text += ToText(value);
   }
}

/// Replaces the comma after the last item, if there is one.
void CloseArray(std::string& text)
{
   if (text.back() == ',') {
      text.pop_back();
   }
   text += ']';
}

template <class T, class Append>
void AppendArray(std::string& text, const T& items, Append append)
{
   text += '[';
   for (const auto& item : items) {
      append(item);
      text += ',';
   }
   CloseArray(text);
}

void AppendValues(std::string& text, const std::vector<int64_t>& values)
{
   constexpr size_t kMostBytes = 20; // of a value and a comma
   text += '[';
   const size_t begin = text.size();
   text.resize(begin + values.size() * kMostBytes);
   char* next = text.data() + begin;
   for (const int64_t value : values) {
      next = value < 0 ? std::copy_n("null", 4, next)
                       : std::to_chars(next, next + kMostBytes, value).ptr;
      *next++ = ',';
   }
   text.resize(static_cast<size_t>(next - text.data()));
   CloseArray(text);
}

void AppendReference(std::string& text, const Plexa::MoRef& reference)
{
   text += R"({"type":)";
   AppendText(text, reference.GetType().name);
   text += R"(,"id":)";
   AppendText(text, reference.GetId());
   text += '}';
}

void AppendSampleInfo(std::string& text, const PerformanceManager::SampleInfo& info)
{
   text += R"({"timestamp":")";
   text += info.timestamp.ToString();
   text += R"(","interval":)";
   AppendNumber(text, info.interval);
   text += '}';
}

/// The text of sample information, which results may share.
class SampleInfoText {
public:
   void AppendTo(std::string& text, const PerformanceManager::EntityMetric& metric)
   {
      if (_last == metric.sampleInfo) {
         text.append(text, _begin, _size);
         return;
      }
      _begin = text.size();
      AppendArray(text, *metric.sampleInfo,
                  [&text](const auto& info) { AppendSampleInfo(text, *info); });
      _size = text.size() - _begin;
      _last = metric.sampleInfo;
   }

private:
   decltype(PerformanceManager::EntityMetric::sampleInfo) _last;
   size_t _begin = 0; // where the text has it
   size_t _size = 0;
};

void AppendSeries(std::string& text, const PerformanceManager::MetricSeries& series)
{
   text += R"({"id":{"counterId":)";
   AppendNumber(text, series.id->counterId);
   text += R"(,"instance":)";
   AppendText(text, series.id->instance);
   text += R"(},"value":)";
   if (const auto* const csv = dynamic_cast<const PerformanceManager::MetricSeriesCSV*>(&series)) {
      AppendText(text, csv->value);
   } else {
      AppendValues(text, dynamic_cast<const PerformanceManager::IntSeries&>(series).value);
   }
   text += '}';
}

const char* StateName(Quen::Vm::Freshness::State state)
{
   using State = Quen::Vm::Freshness::State;
   switch (state) {
   case State::FRESH:
      return "fresh";
   case State::PARTLY:
      return "partly";
   case State::STALE:
      return "stale";
   case State::OFF:
      return "off";
   }
   return "unknown";
}

} // namespace

Json FigureToJson(int64_t figure)
{
   return figure < 0 ? Json(nullptr) : Json(figure);
}

Json ToJson(const Plexa::MoRef& reference)
{
   return {{"type", std::string(reference.GetType().name)}, {"id", reference.GetId()}};
}

Json ToJson(const PerformanceManager::CounterInfo& counter)
{
   Json json = {{"id", counter.key},
                {"group", counter.groupInfo->key},
                {"name", counter.nameInfo->key},
                {"unit", counter.unitInfo->key},
                {"statsType", StatsTypeName(counter.statsType)},
                {"rollup", RollupName(counter.rollupType)},
                {"associated", nullptr}};
   if (counter.associatedCounterId) {
      json["associated"] = *counter.associatedCounterId;
   }
   return json;
}

Json ToJson(const Quen::HistoricalInterval& interval)
{
   return {{"samplingPeriod", interval.samplingPeriod},
           {"name", interval.name},
           {"length", interval.length}};
}

Json ToJson(const MetricId& metricId)
{
   return {{"counterId", metricId.counterId}, {"instance", metricId.instance}};
}

Json ToJson(const PerformanceManager::ProviderSummary& summary)
{
   Json json = {{"entity", ToJson(*summary.entity)},
                {"currentSupported", summary.currentSupported},
                {"summarySupported", summary.summarySupported},
                {"refreshRate", nullptr}};
   if (summary.refreshRate) {
      json["refreshRate"] = *summary.refreshRate;
   }
   return json;
}

Json ToJson(const Quen::Vm::Freshness& freshness)
{
   Json json = {{"state", StateName(freshness.state)}};
   if (freshness.sinceSec != 0) {
      json["since"] = Corvax::DateTime::FromSeconds(freshness.sinceSec).ToString();
   }
   if (!freshness.reason.empty()) {
      json["reason"] = freshness.reason;
   }
   return json;
}

void PrintTo(std::string& text, const QueryResults& results)
{
   SampleInfoText sampleInfoText;
   const auto appendSeries = [&text](const auto& series) { AppendSeries(text, *series); };
   AppendArray(text, results, [&](const Corvax::Ref<PerformanceManager::EntityMetricBase>& result) {
      text += R"({"entity":)";
      AppendReference(text, *result->entity);
      if (const auto* const csv =
             dynamic_cast<const PerformanceManager::EntityMetricCSV*>(result.Get())) {
         text += R"(,"sampleInfoCSV":)";
         AppendText(text, csv->sampleInfoCSV);
         text += R"(,"value":)";
         AppendArray(text, *csv->value, appendSeries);
      } else {
         const auto& normal = dynamic_cast<const PerformanceManager::EntityMetric&>(*result);
         text += R"(,"sampleInfo":)";
         sampleInfoText.AppendTo(text, normal);
         text += R"(,"value":)";
         AppendArray(text, *normal.value, appendSeries);
      }
      text += '}';
   });
}

std::string Print(const Json& json)
{
   return ToText(json) + "\n";
}

} // namespace ManagementApi
