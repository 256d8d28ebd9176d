#include "agentctl/top.h"

#include "agentctl/printable.h"
#include "agentctl/textTable.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace Agentctl {

namespace {

using Corvax::DateTime;

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

/// Raw values where the counter has them, else its only form.
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
   const auto found = types.find(type);
   return found == types.end() ? type : found->second;
}

std::string FormatState(const std::optional<std::string>& state)
{
   static const std::map<std::string, std::string> states = {{"poweredOn", "on"},
                                                             {"poweredOff", "off"}};
   const auto found = states.find(state.value_or("-"));
   return found == states.end() ? state.value_or("-") : found->second;
}

/// The pool that the entity is in, by its name where it is among the rows.
std::string FormatPool(const Entity& entity, const std::vector<TopRow>& rows)
{
   if (!entity.parent) {
      return "-";
   }
   const auto pool = std::find_if(rows.begin(), rows.end(), [&entity](const TopRow& row) {
      return row.entity.id == *entity.parent;
   });
   return pool == rows.end() ? *entity.parent : pool->entity.name;
}

std::string FormatNumber(const std::optional<int64_t>& value)
{
   return value ? Corvax::ToText(*value) : "-";
}

std::string FormatPercent(const std::optional<int64_t>& hundredths)
{
   return hundredths ? FormatHundredths(*hundredths) : "-";
}

std::optional<int64_t> ToMb(const std::optional<int64_t>& kb)
{
   return kb ? std::optional(*kb / 1024) : std::nullopt;
}

std::optional<int64_t> GetSortValue(const TopRow& row, SortKey key)
{
   switch (key) {
   case SortKey::CPU:
      return row.cpuMhz;
   case SortKey::MEMORY:
      return row.memConsumedKb;
   case SortKey::DISK:
      return row.diskKbps;
   case SortKey::NETWORK:
      return row.netKbps;
   case SortKey::READY:
      return row.readyMs;
   }
   Corvax::NotReached("every sort key has its value");
}

/// The newest value of a counter: the aggregate's where it is set, else the sum of the instances,
/// for a virtual machine's ready time is kept of each CPU only.
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
      // Figures so large are nonsense, but no reason for undefined behaviour.
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
      const bool ofEachCpu = wanted.value == &TopRow::readyMs;
      _metrics.push_back({counter->id, ofEachCpu ? "*" : ""});
   }
   if (_fields.empty()) {
      throw Corvax::NotFoundException("the server has none of the counters to show");
   }
}

TopView TopSource::Read()
{
   TopView view;
   std::vector<EntitySeries> answer;
   try {
      const std::vector<Entity> entities = _api.GetEntities();
      Prepare(entities);
      for (const Entity& entity : entities) {
         view.rows.push_back({entity, {}, {}, {}, {}, {}, {}, {}});
      }
      if (!entities.empty()) {
         answer = _api.QueryNewest(entities, _metrics, _intervalSec);
      }
   } catch (...) {
      _fields.clear();
      throw;
   }
   view.intervalSec = _intervalSec;
   std::erase_if(answer, [](const EntitySeries& figures) { return figures.times.empty(); });
   for (const EntitySeries& figures : answer) {
      view.newest = std::max(view.newest.value_or(figures.times.back()), figures.times.back());
   }
   for (const EntitySeries& figures : answer) {
      const int64_t ageUs =
         view.newest->GetUtcMicroseconds() - figures.times.back().GetUtcMicroseconds();
      const auto row = std::find_if(view.rows.begin(), view.rows.end(), [&](const TopRow& other) {
         return other.entity.id == figures.entityId;
      });
      if (row == view.rows.end() || ageUs / 1000000 > _intervalSec) {
         continue;
      }
      for (const Field& field : _fields) {
         (*row).*field.value = GetNewest(figures, field.counterId);
      }
   }
   return view;
}

std::optional<SortKey> GetSortKey(char key)
{
   switch (key) {
   case 'c':
      return SortKey::CPU;
   case 'm':
      return SortKey::MEMORY;
   case 'd':
      return SortKey::DISK;
   case 'n':
      return SortKey::NETWORK;
   case 'r':
      return SortKey::READY;
   default:
      return std::nullopt;
   }
}

void SortRows(std::vector<TopRow>& rows, SortKey key)
{
   std::sort(rows.begin(), rows.end(), [key](const TopRow& left, const TopRow& right) {
      // An unset optional is less than any set one.
      const auto leftValue = GetSortValue(left, key);
      const auto rightValue = GetSortValue(right, key);
      return std::tie(rightValue, left.entity.name, left.entity.id) <
             std::tie(leftValue, right.entity.name, right.entity.id);
   });
}

std::vector<std::string> FormatRows(const std::vector<TopRow>& rows,
                                    std::optional<size_t> lineColumns)
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
      table.AddRow({row.entity.name, FormatType(row.entity.type), FormatState(row.entity.state),
                    FormatPool(row.entity, rows), FormatNumber(row.cpuMhz),
                    FormatPercent(row.cpuHundredths), FormatNumber(row.readyMs),
                    FormatNumber(ToMb(row.memConsumedKb)), FormatPercent(row.memHundredths),
                    FormatNumber(row.diskKbps), FormatNumber(row.netKbps)});
   }
   if (lineColumns) {
      table.ShrinkTo(*lineColumns);
   }
   return table.TakeLines();
}

} // namespace Agentctl
