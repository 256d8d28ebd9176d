#include "linuxHost/groupTree.h"

#include "corvax/format.h"
#include "inventory/inventory.h"
#include "linuxHost/kernel/textParts.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace LinuxHost {

namespace {

using Inventory::BoundedId;
using Quen::Host::SystemResourceInfo;

constexpr std::string_view kPartitionEnding = ".partition";
constexpr std::string_view kSliceEnding = ".slice";

/// In the order of precedence.
constexpr std::string_view kMachineGroups[] = {"machine.slice", "machine"};

bool IsMachineGroup(std::string_view name)
{
   return std::find(std::begin(kMachineGroups), std::end(kMachineGroups), name) !=
          std::end(kMachineGroups);
}

/// False, and the name is unchanged, when it has no such ending or nothing before it.
bool RemoveEnding(std::string_view& name, std::string_view ending)
{
   if (name.size() <= ending.size() || !name.ends_with(ending)) {
      return false;
   }
   name.remove_suffix(ending.size());
   return true;
}

bool IsPool(std::string_view group)
{
   return RemoveEnding(group, kPartitionEnding) || RemoveEnding(group, kSliceEnding);
}

/// Turns systemd's "\x2d" into "-". An escape of a control character or a slash stays as it is.
std::string UnescapeHex(std::string_view text)
{
   constexpr size_t kEscapeBytes = 4;
   std::string plain;
   while (!text.empty()) {
      const std::string_view escape = text.substr(0, kEscapeBytes);
      uint64_t code = 0;
      if (escape.size() == kEscapeBytes && escape.starts_with("\\x")) {
         code = ParseNumber(escape.substr(2), 16).value_or(0);
      }
      const bool isEscape = code >= ' ' && code != '/';
      plain += isEscape ? static_cast<char>(code) : text[0];
      text.remove_prefix(isEscape ? kEscapeBytes : 1);
   }
   return plain;
}

/// A slice's name starts with its parent's: "machine-gold-web.slice" in "machine-gold.slice" is
/// "web".
std::string GetPoolName(std::string_view group, std::string_view parentGroup)
{
   if (!RemoveEnding(group, kSliceEnding)) {
      RemoveEnding(group, kPartitionEnding);
      return std::string(group);
   }
   if (RemoveEnding(parentGroup, kSliceEnding) && group.size() > parentGroup.size() + 1 &&
       group.starts_with(parentGroup) && group[parentGroup.size()] == '-') {
      group.remove_prefix(parentGroup.size() + 1);
   }
   return UnescapeHex(group);
}

/// `namePath` has a slash before each name, "/gold/web".
std::string GetPoolId(std::string_view namePath)
{
   return namePath.empty() ? kRootPoolId : BoundedId("pool:" + std::string(namePath.substr(1)));
}

/// Collects the pools of a tree, top down.
class PoolSearch {
public:
   explicit PoolSearch(const ControlGroups& groups) : _groups(groups) {}

   /// `group` is the last component of `path`.
   void AddBelow(const std::string& path, const std::string& group, const std::string& namePath,
                 size_t depth = 1)
   {
      constexpr size_t kMaxDepth = 16;
      if (depth > kMaxDepth) {
         return;
      }
      for (const std::string& child : _groups.ListChildren(path)) {
         if (!IsPool(child)) {
            continue;
         }
         const std::string name = GetPoolName(child, group);
         const std::string childNames = Corvax::Format("%1/%2", namePath, name);
         const std::string childPath = Corvax::Format("%1/%2", path, child);
         if (_ids.insert(GetPoolId(childNames)).second) {
            _pools.push_back({GetPoolId(childNames), name, GetPoolId(namePath), childPath});
         }
         AddBelow(childPath, child, childNames, depth + 1);
      }
   }

   std::vector<PoolGroup> TakePools() { return std::move(_pools); }

private:
   const ControlGroups& _groups;
   std::set<std::string> _ids;
   std::vector<PoolGroup> _pools;
};

/// The existing machine groups, in the order of precedence.
std::vector<std::string> FindMachineGroups(const ControlGroups& groups)
{
   const std::vector<std::string> top = groups.ListChildren("/");
   std::vector<std::string> found;
   for (const std::string_view name : kMachineGroups) {
      if (std::find(top.begin(), top.end(), name) != top.end()) {
         found.emplace_back(name);
      }
   }
   return found;
}

/// The node of a group, with `levels` levels below it.
Corvax::Ref<SystemResourceInfo> MakeNode(const ControlGroups& groups, const std::string& path,
                                         size_t levels, std::map<std::string, std::string>& paths)
{
   const auto node = Corvax::MakeRef<SystemResourceInfo>();
   node->key = BoundedId(path, kMaxGroupKeyBytes);
   paths.emplace(node->key, path);
   if (levels == 0) {
      return node;
   }
   const bool isRoot = path == "/";
   for (const std::string& child : groups.ListChildren(path)) {
      if (isRoot && IsMachineGroup(child)) {
         continue;
      }
      if (!node->child) {
         node->child = Corvax::MakeRef<Plexa::DataArray<SystemResourceInfo>>();
      }
      const std::string childPath = Corvax::Format("%1/%2", isRoot ? "" : path, child);
      node->child->Append(MakeNode(groups, childPath, levels - 1, paths));
   }
   return node;
}

} // namespace

std::vector<PoolGroup> FindPools(const ControlGroups& groups)
{
   PoolSearch search(groups);
   for (const std::string& machine : FindMachineGroups(groups)) {
      search.AddBelow("/" + machine, machine, "");
   }
   return search.TakePools();
}

PoolTracker::Changes PoolTracker::LookUp(const ControlGroups& groups)
{
   Changes changes;
   changes.present = FindPools(groups);
   std::map<std::string, std::string> paths;
   for (const PoolGroup& pool : changes.present) {
      paths[pool.id] = pool.path;
   }
   if (std::string machine = FindMachinePath(groups); !machine.empty()) {
      paths[kRootPoolId] = std::move(machine);
   }
   std::set<std::string> missing;
   for (const auto& [id, path] : _paths) {
      if (paths.contains(id) || path.empty()) {
         continue;
      }
      const bool isMissing = !groups.IsPresent(path);
      if (isMissing && _missing.contains(id)) {
         changes.gone.push_back(id);
         continue;
      }
      if (isMissing) {
         missing.insert(id);
      }
      paths[id] = path;
   }
   std::erase(changes.gone, kRootPoolId);
   paths.try_emplace(kRootPoolId);
   _paths = std::move(paths);
   _missing = std::move(missing);
   return changes;
}

std::string PoolIdOfPartition(std::string_view partition)
{
   std::string namePath;
   std::string_view parent;
   while (!partition.empty()) {
      const std::string_view group = TakePart(partition, '/');
      if (group.empty()) {
         continue;
      }
      if (!parent.empty()) {
         namePath += "/" + GetPoolName(group, parent);
      } else if (!IsMachineGroup(group)) {
         break;
      }
      parent = group;
   }
   return GetPoolId(namePath);
}

std::string FindMachinePath(const ControlGroups& groups)
{
   const std::vector<std::string> machines = FindMachineGroups(groups);
   return machines.empty() ? "" : "/" + machines.front();
}

SystemGroups FindSystemGroups(const ControlGroups& groups)
{
   constexpr size_t kLevels = 2;
   SystemGroups found;
   found.root = MakeNode(groups, "/", kLevels, found.pathByKey);
   return found;
}

} // namespace LinuxHost
