#pragma once

#include "agentctl/api.h"
#include "agentctl/textTable.h"

namespace Agentctl {

/// An entity and its newest figures.
struct TopRow {
   Entity entity;
   std::optional<int64_t> cpuMhz;
   std::optional<int64_t> cpuHundredths; ///< of a percent
   std::optional<int64_t> readyMs;       ///< over all virtual CPUs
   std::optional<int64_t> memConsumedKb;
   std::optional<int64_t> memHundredths;
   std::optional<int64_t> diskKbps;
   std::optional<int64_t> netKbps;
};

struct TopView {
   std::vector<TopRow> rows;
   std::optional<Corvax::DateTime> newest; ///< time stamp of the newest figures
   int64_t intervalSec = 0;
};

/// Reads the newest figures of all entities.
class TopSource {
public:
   /// Keeps a reference.
   explicit TopSource(Api& api) : _api(api) {}

   /// Leaves figures unset that are more than one interval older than the newest of all, such as
   /// those of a virtual machine that is switched off. After a failure the next call reads the
   /// counters and the interval again, because another agent may be running by then.
   TopView Read();

private:
   void Prepare(const std::vector<Entity>& entities);
   void SetFigures(TopView& view, const EntitySeries& figures) const;

   struct Field {
      int64_t counterId;
      std::optional<int64_t> TopRow::* value;
   };

   Api& _api;
   std::vector<Field> _fields; ///< empty: not read yet
   std::vector<Metric> _metrics;
   int64_t _intervalSec = 0;
};

/// A column that the rows can be sorted by.
struct SortKey {
   char key; ///< on the keyboard
   const char* title;
   std::optional<int64_t> TopRow::* value;
};

/// The first one is the default.
constexpr SortKey kSortKeys[] = {
   {'c', "CPU", &TopRow::cpuMhz},         {'m', "memory", &TopRow::memConsumedKb},
   {'d', "disk", &TopRow::diskKbps},      {'n', "network", &TopRow::netKbps},
   {'r', "ready time", &TopRow::readyMs},
};

/// Null if the key of the keyboard sorts by nothing.
const SortKey* FindSortKey(char key);

/// Sorts by descending value, unset ones last; equal ones by name and id.
void SortRows(std::vector<TopRow>& rows, const SortKey& key);

TextTable ToTable(const std::vector<TopRow>& rows);

} // namespace Agentctl
