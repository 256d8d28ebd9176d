#include "agentctl/top.h"

#include "agentctl/valueFormat.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace Agentctl {

namespace {

struct WantedField {
   const char* group;
   const char* name;
   std::optional<int64_t> TopRow::* value;
};

constexpr WantedField kWanted[] = {
   {"cpu", "usagemhz", &TopRow::cpuMhz},     {"cpu", "usage", &TopRow::cpuHundredths},
   {"cpu", "ready", &TopRow::readyMs},       {"mem", "consumed", &TopRow::memConsumedKb},
   {"mem", "usage", &TopRow::memHundredths}, {"disk", "usage", &TopRow::diskKbps},
   {"net", "usage", &TopRow::netKbps},
};

/// The counter of the raw values, or else the first one of that name.
const Counter* FindCounter(const std::vector<Counter>& counters, const WantedField& wanted)
{
   const Counter* found = nullptr;
   for (const Counter& counter : counters) {
      const bool fits = counter.group == wanted.group && counter.name == wanted.name;
      if (fits && (found == nullptr || counter.rollup == "none")) {
         found = &counter;
      }
   }
   return found;
}

std::string FormatType(const std::string& type)
{
   static const std::map<std::string, std::string> types = {
      {"HostSystem", "host"}, {"VirtualMachine", "vm"}, {"ResourcePool", "pool"}};
   return Shorten(type, types);
}

/// Of a virtual machine with missing figures this is how many are: "partly" or "stale".
std::string FormatState(const Entity& entity)
{
   static const std::map<std::string, std::string> states = {{"poweredOn", "on"},
                                                             {"poweredOff", "off"}};
   return entity.freshness.IsAnyMissing() ? entity.freshness.state
                                          : Shorten(entity.state.value_or(kUnsetText), states);
}

/// Works on rows that are const or not.
auto FindRow(auto& rows, const std::string& entityId)
{
   return std::ranges::find_if(
      rows, [&entityId](const TopRow& row) { return row.entity.id == entityId; });
}

/// The name of the entity's pool, or its id if the pool has no row.
std::string FormatPool(const Entity& entity, const std::vector<TopRow>& rows)
{
   if (!entity.parent) {
      return kUnsetText;
   }
   const auto pool = FindRow(rows, *entity.parent);
   return pool == rows.end() ? *entity.parent : pool->entity.name;
}

std::string FormatPercent(const std::optional<int64_t>& hundredths)
{
   return hundredths ? FormatHundredths(*hundredths) : kUnsetText;
}

std::optional<int64_t> ToMb(const std::optional<int64_t>& kb)
{
   return kb ? std::optional(*kb / 1024) : std::nullopt;
}

/// The newest value of a counter: the aggregate's if it is set, else the sum of the instances. (The
/// ready time of a virtual machine has no aggregate, only one instance per CPU.)
std::optional<int64_t> GetNewest(const EntitySeries& figures, int64_t counterId)
{
   std::optional<int64_t> sum;
   for (const Series& series : figures.series) {
      if (series.metric.counterId != counterId || !series.values.back()) {
         continue;
      }
      if (series.metric.instance.empty()) {
         return series.values.back();
      }
      int64_t next = 0;
      // Signed overflow is undefined; whatever the server sends must not reach it.
      if (!__builtin_add_overflow(sum.value_or(0), *series.values.back(), &next)) {
         sum = next;
      }
   }
   return sum;
}

} // namespace

void TopSource::Prepare(const std::vector<Entity>& entities)
{
   if (!_fields.empty()) {
      return;
   }
   const auto host = std::find_if(entities.begin(), entities.end(),
                                  [](const Entity& entity) { return entity.type == "HostSystem"; });
   _intervalSec = _api.GetRefreshRate(host == entities.end() ? kHostId : host->id);
   const std::vector<Counter> counters = _api.GetCounters();
   _metrics.clear();
   for (const WantedField& wanted : kWanted) {
      const Counter* const counter = FindCounter(counters, wanted);
      if (counter == nullptr) {
         continue;
      }
      _fields.push_back({counter->id, wanted.value});
      const bool isPerCpu = wanted.value == &TopRow::readyMs;
      _metrics.push_back({counter->id, isPerCpu ? "*" : ""});
   }
   if (_fields.empty()) {
      throw Corvax::NotFoundException("the server has none of the counters of this table");
   }
}

TopView TopSource::Read()
{
   TopView view;
   std::vector<EntitySeries> response;
   try {
      const std::vector<Entity> entities = _api.GetEntities();
      Prepare(entities);
      for (const Entity& entity : entities) {
         view.rows.push_back({entity, {}, {}, {}, {}, {}, {}, {}});
      }
      if (!entities.empty()) {
         response = _api.QueryNewest(entities, _metrics, _intervalSec);
      }
   } catch (...) {
      _fields.clear();
      throw;
   }
   view.intervalSec = _intervalSec;
   std::erase_if(response, [](const EntitySeries& figures) { return figures.times.empty(); });
   for (const EntitySeries& figures : response) {
      view.newest = std::max(view.newest.value_or(figures.times.back()), figures.times.back());
   }
   for (const EntitySeries& figures : response) {
      SetFigures(view, figures);
   }
   return view;
}

void TopSource::SetFigures(TopView& view, const EntitySeries& figures) const
{
   const int64_t ageUs =
      view.newest->GetUtcMicroseconds() - figures.times.back().GetUtcMicroseconds();
   const auto row = FindRow(view.rows, figures.entityId);
   if (row == view.rows.end() || ageUs / Corvax::kMicrosecondsPerSecond > _intervalSec) {
      return;
   }
   for (const Field& field : _fields) {
      (*row).*field.value = GetNewest(figures, field.counterId);
   }
}

const SortKey* FindSortKey(char key)
{
   const SortKey* const found = std::ranges::find(kSortKeys, key, &SortKey::key);
   return found == std::end(kSortKeys) ? nullptr : found;
}

void SortRows(std::vector<TopRow>& rows, const SortKey& key)
{
   std::ranges::sort(rows, [&key](const TopRow& left, const TopRow& right) {
      // An unset optional is less than any set one.
      return std::tie(right.*key.value, left.entity.name, left.entity.id) <
             std::tie(left.*key.value, right.entity.name, right.entity.id);
   });
}

TextTable ToTable(const std::vector<TopRow>& rows)
{
   TextTable table({{"NAME"},
                    {"TYPE"},
                    {"STATE"},
                    {"POOL"},
                    {"CPU MHz", true},
                    {"CPU %", true},
                    {"READY ms", true},
                    {"MEM MB", true},
                    {"MEM %", true},
                    {"DISK KB/s", true},
                    {"NET KB/s", true}});
   for (const TopRow& row : rows) {
      table.AddRow({row.entity.name, FormatType(row.entity.type), FormatState(row.entity),
                    FormatPool(row.entity, rows), FormatNumber(row.cpuMhz),
                    FormatPercent(row.cpuHundredths), FormatNumber(row.readyMs),
                    FormatNumber(ToMb(row.memConsumedKb)), FormatPercent(row.memHundredths),
                    FormatNumber(row.diskKbps), FormatNumber(row.netKbps)});
   }
   return table;
}

} // namespace Agentctl
