#include "metrix/depotAside.h"

#include "corvax/system.h"

#include <algorithm>

namespace Metrix {

namespace {

Corvax::SystemFactory& Files()
{
   return Corvax::System::GetFactory();
}

/// The paths of one depot.
struct Places {
   Places(const std::string& directoryPath, const std::string& name)
      : directory(directoryPath), description(name + ".xml"), idMap(name + ".idMap"),
        aside(directory + name + ".aside"), incomplete(aside + ".new"), replaced(aside + ".old")
   {
   }

   const std::string directory;
   const std::string description; ///< file name
   const std::string idMap;       ///< file name
   const std::string aside;
   const std::string incomplete; ///< what is being set aside
   const std::string replaced;   ///< what was set aside before, to be removed
};

bool IsStoreName(std::string_view name, std::string_view depotName)
{
   const std::string_view suffix = ".stats";
   if (!name.starts_with(depotName) || !name.ends_with(suffix)) {
      return false;
   }
   name.remove_prefix(depotName.size());
   return name.starts_with('-') && name.size() > 1 + suffix.size() &&
          name.find_first_not_of("0123456789", 1) == name.size() - suffix.size();
}

/// The depot's files in the directory, in no order, without its lock file. Anything else is left
/// alone, such as an administrator's copies.
std::vector<std::string> ListDepotFiles(const Places& places, const std::string& name)
{
   if (!Files().Exists(places.directory)) {
      return {};
   }
   std::vector<std::string> files = Files().ListDirectory(places.directory);
   std::erase_if(files, [&](const std::string& file) {
      return file != places.description && file != places.description + ".new" &&
             file != places.idMap && !file.starts_with(name + ".journal") &&
             !IsStoreName(file, name);
   });
   return files;
}

/// The description goes first: while it is in the directory, the depot as a whole was not given up.
void MoveFiles(const Places& places, std::vector<std::string> files)
{
   std::ranges::partition(
      files, [&places](const std::string& file) { return file == places.description; });
   for (const std::string& file : files) {
      Files().Rename(places.directory + file, places.incomplete + "/" + file);
   }
   Files().SyncDirectory(places.incomplete);
   Files().SyncDirectory(places.directory);
}

/// Makes the complete directory the one that was set aside last.
void Publish(const Places& places)
{
   if (Files().Exists(places.aside)) {
      Files().Remove(places.replaced);
      Files().Rename(places.aside, places.replaced);
   }
   Files().Rename(places.incomplete, places.aside);
   Files().SyncDirectory(places.directory);
   Files().Remove(places.replaced);
}

std::unique_ptr<Corvax::FileLock> LockDepot(const std::string& directory, const std::string& name)
{
   return Files().Lock(directory + name + ".lock");
}

bool IsInterrupted(const Places& places)
{
   return Files().Exists(places.incomplete) || Files().Exists(places.replaced);
}

void Finish(const Places& places, const std::string& name)
{
   if (!Files().Exists(places.incomplete)) {
      Files().Remove(places.replaced);
      return;
   }
   if (Files().ListDirectory(places.incomplete).empty()) {
      Files().Remove(places.incomplete);
      return;
   }
   // Without its description the depot was being given up as a whole.
   if (!Files().Exists(places.directory + places.description)) {
      MoveFiles(places, ListDepotFiles(places, name));
   }
   Publish(places);
}

} // namespace

std::string SetAside(const std::string& directory, const std::string& name,
                     const std::vector<std::string>& files)
{
   const Places places(directory, name);
   if (IsInterrupted(places)) {
      Finish(places, name);
   }
   Files().CreateDirectory(places.incomplete);
   Files().SyncDirectory(directory);
   MoveFiles(places, files);
   Publish(places);
   return places.aside;
}

std::string SetDepotAside(const std::string& directory, const std::string& name)
{
   const Places places(directory, name);
   std::vector<std::string> files = ListDepotFiles(places, name);
   if (files.empty()) {
      return {};
   }
   const auto lock = LockDepot(directory, name);
   files = ListDepotFiles(places, name);
   // Samples without their stats' names are worth less than the files of a whole depot. This is
   // also how a depot looks whose creation was interrupted.
   const bool hasStats = std::ranges::any_of(files, [&](const std::string& file) {
      return file.starts_with(name + ".journal") ||
             (file == places.idMap && Files().GetFileSize(directory + file) > 0);
   });
   if (!hasStats && Files().Exists(places.aside)) {
      return {};
   }
   return SetAside(directory, name, files);
}

void FinishSetAside(const std::string& directory, const std::string& name)
{
   const Places places(directory, name);
   if (IsInterrupted(places)) {
      const auto lock = LockDepot(directory, name);
      Finish(places, name);
   }
}

} // namespace Metrix
