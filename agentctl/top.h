#pragma once

#include "agentctl/api.h"

namespace Agentctl {

/// The newest figures of an entity.
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
   std::optional<Corvax::DateTime> newest; ///< stamp of the newest figures
   int64_t intervalSec = 0;
};

/// Reads the figures of all entities.
class TopSource {
public:
   /// Keeps a reference.
   explicit TopSource(Api& api) : _api(api) {}

   /// Entities and figures as they are now. What is more than an interval older than the newest
   /// figure is left unset: of an entity that is switched off, the newest sample is an old one.
   /// Counters and interval are read again after a failure, for it may be another server then.
   TopView Read();

private:
   void Prepare(const std::vector<Entity>& entities);

   struct Field {
      int64_t counterId;
      std::optional<int64_t> TopRow::* value;
   };

   Api& _api;
   std::vector<Field> _fields; ///< empty: to be read
   std::vector<Metric> _metrics;
   int64_t _intervalSec = 0;
};

enum class SortKey { CPU, MEMORY, DISK, NETWORK, READY };

/// The key of the keyboard, or nothing.
std::optional<SortKey> GetSortKey(char key);

/// Largest first, unset last; equal ones by name and id.
void SortRows(std::vector<TopRow>& rows, SortKey key);

/// The table's lines, titles first. With `lineColumns` names are cut so that they fit.
std::vector<std::string> FormatRows(const std::vector<TopRow>& rows,
                                    std::optional<size_t> lineColumns);

} // namespace Agentctl
