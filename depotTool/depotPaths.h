#pragma once

#include "metrix/journalReader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace DepotTool {

/// The files of one depot in one directory.
struct DepotPaths {
   std::string dir; ///< absolute; ends with "/"
   std::string name;

   std::string GetDescription() const { return dir + name + ".xml"; }
   std::string GetIdMap() const { return dir + name + ".idMap"; }
   std::string GetStore(int64_t periodSec) const
   {
      return dir + name + "-" + std::to_string(periodSec) + ".stats";
   }
   /// One of the journal's files.
   std::string GetJournal(size_t index) const
   {
      return Metrix::GetJournalFileName(dir + name, index);
   }
   std::string GetLock() const { return dir + name + ".lock"; }

   /// The periods of the store files that are in the directory, ascending. None if there is no such
   /// directory.
   std::vector<int32_t> FindStores() const;
   /// Whether the directory has a description, an id map or a store of this name.
   bool HasDepot() const;
};

} // namespace DepotTool
