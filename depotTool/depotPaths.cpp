#include "depotTool/depotPaths.h"

#include "corvax/system.h"

#include <algorithm>
#include <charconv>

namespace DepotTool {

std::vector<int32_t> DepotPaths::FindStores() const
{
   std::vector<int32_t> periods;
   if (!Corvax::System::GetFactory().Exists(dir)) {
      return periods;
   }
   const std::string prefix = name + "-";
   for (const std::string& entry : Corvax::System::GetFactory().ListDirectory(dir)) {
      int32_t periodSec = 0;
      if (entry.starts_with(prefix)) {
         std::from_chars(&entry[prefix.size()], entry.data() + entry.size(), periodSec);
      }
      // Only the exact name counts: "d-020.stats" and "d-20.stats.old" are not the depot's.
      if (periodSec > 0 && dir + entry == GetStore(periodSec)) {
         periods.push_back(periodSec);
      }
   }
   std::ranges::sort(periods);
   return periods;
}

bool DepotPaths::HasDepot() const
{
   Corvax::SystemFactory& files = Corvax::System::GetFactory();
   return files.Exists(GetDescription()) || files.Exists(GetIdMap()) || !FindStores().empty();
}

} // namespace DepotTool
