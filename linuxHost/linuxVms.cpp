#include "linuxHost/linuxVms.h"

#include "linuxHost/groupTree.h"
#include "linuxHost/kernel/diskReader.h"
#include "linuxHost/kernel/saturate.h"
#include "linuxHost/kernel/vmGroups.h"

#include <algorithm>

namespace LinuxHost {

namespace {

using Corvax::MakeRef;
using Corvax::Ref;
using HostCtl::Storage::StorageStatistics;
using HostCtl::Storage::WorldStatistics;
using Quen::Vm::PowerState;
using Quen::Vm::Device::VirtualEthernetCard;

Ref<VirtualEthernetCard> MakeCard(const VmCard& description)
{
   auto card = MakeRef<VirtualEthernetCard>();
   card->key = description.key;
   card->connectable = MakeRef<Quen::Vm::Device::ConnectInfo>();
   card->connectable->connected = description.linkUp;
   if (description.onNetwork) {
      auto backing = MakeRef<VirtualEthernetCard::NetworkBackingInfo>();
      backing->deviceName = description.tap;
      card->backing = backing;
   }
   return card;
}

Ref<Quen::Vm::ConfigInfo> MakeConfig(const VmDescription& description)
{
   auto config = MakeRef<Quen::Vm::ConfigInfo>();
   config->name = description.name;
   config->hardware.memoryMb = description.memoryMb;
   config->hardware.device = MakeRef<Plexa::DataArray<Quen::Vm::Device::VirtualDevice>>();
   for (const VmCard& card : description.cards) {
      config->hardware.device->Append(MakeCard(card));
   }
   return config;
}

/// Adds by how much the disk's counters have grown.
void AddGrowth(VmDiskFigures& sum, const VmDiskFigures& before, const VmDiskFigures& now)
{
   for (uint64_t VmDiskFigures::* const counter : kDiskCounters) {
      sum.*counter += SaturatingSubtract(now.*counter, before.*counter);
   }
}

StorageStatistics ToStatistics(const VmDiskFigures& traffic)
{
   StorageStatistics statistics;
   statistics.blocksRead = traffic.bytesRead / kBlockSizeBytes;
   statistics.blocksWritten = traffic.bytesWritten / kBlockSizeBytes;
   statistics.readOperations = traffic.readOperations;
   statistics.writeOperations = traffic.writeOperations;
   statistics.commands = traffic.readOperations + traffic.writeOperations + traffic.flushOperations;
   return statistics;
}

} // namespace

LinuxVms::LinuxVms(const std::string& root, Inventory::Inventory& inventory,
                   const SnapshotSource& snapshots, Corvax::Logger* logger)
   : _root(root), _inventory(inventory), _snapshots(snapshots), _logger(logger), _locator(root)
{
}

void LinuxVms::Replace(const std::vector<VmDescription>& descriptions,
                       const std::set<std::string>& kept)
{
   Processes processes;
   std::set<std::string> known = kept;
   for (const VmDescription& description : descriptions) {
      known.insert(description.id);
      Update(description, processes);
   }
   for (const Ref<LinuxVm>& vm : GetAll()) {
      if (!known.contains(vm->GetId())) {
         Remove(vm->GetId());
      }
   }
}

void LinuxVms::Update(const VmDescription& description)
{
   Processes processes;
   Update(description, processes);
}

void LinuxVms::Update(const VmDescription& description, Processes& processes)
{
   // Before the locks: access to the images may be slow, as on a network file system.
   const auto places = FindPlaces(description, processes);
   Ref<LinuxVm> vm = Find(description.id);
   const bool isNew = !vm;
   if (isNew) {
      vm = MakeRef<LinuxVm>(description.id, ++_lastWorldId, _inventory, _snapshots, _logger.Get());
   }
   {
      // A collection, which locks the machine, sees all of a change or nothing: the sum over NICs
      // and its correction must be of the same NICs.
      const Corvax::Locker whole(vm.Get());
      const std::lock_guard guard(_mutex);
      AssignPorts(description, *places);
      vm->SetConfig(MakeConfig(description));
      vm->SetPoolId(PoolIdOfPartition(description.partition));
      vm->SetPlaces(places);
      _vms[description.id] = vm;
   }
   // After all else: subscribers to the power state find everything up to date.
   if (isNew) {
      vm->SetPowerState(description.powerState);
      _inventory.RegisterVm(vm);
      return;
   }
   _inventory.SetPowerState(description.id, description.powerState);
}

void LinuxVms::Remove(const std::string& id)
{
   const std::lock_guard guard(_mutex);
   ForgetPorts(id);
   _vms.erase(id);
   _inventory.UnregisterVm(id);
}

std::shared_ptr<VmPlaces> LinuxVms::FindPlaces(const VmDescription& description,
                                               Processes& processes) const
{
   auto places = std::make_shared<VmPlaces>();
   if (description.powerState == PowerState::POWERED_OFF) {
      return places;
   }
   const Ref<LinuxVm> vm = Find(description.id);
   const auto before = vm ? vm->GetPlaces() : std::make_shared<const VmPlaces>();
   FindProcess(*places, *before, description.id, processes);
   places->hasHugePages = description.hasHugePages;
   for (const VmDisk& disk : description.disks) {
      const auto known = std::ranges::find_if(before->disks, [&disk](const VmPlaces::Disk& one) {
         return one.target == disk.target && one.path == disk.path;
      });
      if (known != before->disks.end()) {
         places->disks.push_back(*known);
         continue;
      }
      try {
         places->disks.push_back({disk.target, disk.path, _locator.FindDisk(disk)});
      } catch (const HostCtl::Lib::HostCtlException& e) {
         _logger->Log(Corvax::kLogWarning,
                      "Virtual machine %1 (%2) has no figures of %3 until it is described anew: %4",
                      description.name, description.id, disk.target, e.GetMessage());
      }
   }
   return places;
}

/// A process that is still there stays the machine's; its group may be another one now. Its object
/// is in use by other threads, so that a second one asks.
void LinuxVms::FindProcess(VmPlaces& places, const VmPlaces& before, const std::string& id,
                           Processes& processes) const
{
   auto process = std::make_shared<QemuProcess>(_root, before.pid);
   std::optional<uint64_t> startUs = process->ReadStartUs();
   places.pid = before.pid;
   places.process = before.process;
   if (!startUs || *startUs != before.startUs) {
      if (!processes) {
         processes = FindProcesses();
      }
      const auto found = processes->find(id);
      if (found == processes->end()) {
         places.pid = -1;
         places.process = nullptr;
         return;
      }
      process = std::make_shared<QemuProcess>(_root, found->second);
      startUs = process->ReadStartUs();
      places.pid = found->second;
      places.process = process;
   }
   places.startUs = startUs.value_or(0);
   const std::string path = process->ReadGroupPath();
   places.groupPath = IsVmGroup(path) ? path : "";
}

/// None when they cannot be listed: the machines' other figures do not depend on them.
std::map<std::string, int32_t> LinuxVms::FindProcesses() const
{
   try {
      return FindQemuProcesses(_root);
   } catch (const HostCtl::Lib::HostCtlException& e) {
      _logger->Log(Corvax::kLogWarning,
                   "Virtual machines have no figures of their processes and groups until they are "
                   "described anew: %1",
                   e.GetMessage());
      return {};
   }
}

void LinuxVms::AssignPorts(const VmDescription& description, VmPlaces& places)
{
   ForgetPorts(description.id);
   if (description.powerState == PowerState::POWERED_OFF) {
      return;
   }
   for (const VmCard& card : description.cards) {
      if (card.onNetwork && !card.tap.empty()) {
         places.cards.push_back({card.key, ++_lastPortId, card.tap});
         _ports[_lastPortId] = {description.id, card.tap};
      }
   }
}

void LinuxVms::ForgetPorts(const std::string& vmId)
{
   std::erase_if(_ports, [&vmId](const auto& port) { return port.second.vmId == vmId; });
}

Ref<LinuxVm> LinuxVms::Find(const std::string& id) const
{
   const std::lock_guard guard(_mutex);
   const auto found = _vms.find(id);
   return found == _vms.end() ? nullptr : found->second;
}

std::vector<Ref<LinuxVm>> LinuxVms::GetAll() const
{
   std::vector<Ref<LinuxVm>> vms;
   const std::lock_guard guard(_mutex);
   vms.reserve(_vms.size());
   for (const auto& [id, vm] : _vms) {
      vms.push_back(vm);
   }
   return vms;
}

std::optional<HostCtl::Network::PortStatistics> LinuxVms::GetPort(uint32_t portId) const
{
   const auto snapshot = _snapshots.GetSnapshot();
   const std::lock_guard guard(_mutex);
   const auto place = _ports.find(portId);
   if (place == _ports.end() || !snapshot) {
      return std::nullopt;
   }
   const auto vm = snapshot->vms.find(place->second.vmId);
   if (vm == snapshot->vms.end()) {
      return std::nullopt;
   }
   const auto card = std::ranges::find(vm->second.cards, place->second.tap, &VmCardFigures::tap);
   if (card == vm->second.cards.end()) {
      return std::nullopt;
   }
   return HostCtl::Network::PortStatistics{card->bytesReceived, card->bytesSent,
                                           card->packetsReceived, card->packetsSent};
}

std::map<std::string, std::vector<WorldStatistics>> LinuxVms::GetDiskWorlds()
{
   std::map<std::string, std::vector<WorldStatistics>> worlds;
   const auto snapshot = _snapshots.GetSnapshot();
   if (!snapshot) {
      return worlds;
   }
   const std::lock_guard guard(_trafficMutex);
   std::erase_if(_traffic, [this](const auto& entry) { return !Find(entry.first); });
   for (const auto& [id, figures] : snapshot->vms) {
      const Ref<LinuxVm> vm = Find(id);
      const auto places = vm ? vm->GetPlaces() : nullptr;
      if (!places || figures.disks.empty()) {
         continue;
      }
      DiskTraffic& traffic = _traffic[id];
      AddTraffic(traffic, figures, *places);
      for (const auto& [hostDisk, sum] : traffic.byHostDisk) {
         worlds[hostDisk].push_back({vm->GetWorldId(), ToStatistics(sum)});
      }
   }
   return worlds;
}

/// The first disks of a start count from zero, so that the sums are the hypervisor's own figures;
/// one that appears later counts from its first reading.
void LinuxVms::AddTraffic(DiskTraffic& traffic, const VmFigures& figures, const VmPlaces& places)
{
   const bool isFirst = traffic.startId != figures.startId || traffic.byHostDisk.empty();
   if (isFirst) {
      traffic = DiskTraffic();
      traffic.startId = figures.startId;
   }
   for (const VmDiskFigures& disk : figures.disks) {
      const auto place = std::ranges::find(places.disks, disk.target, &VmPlaces::Disk::target);
      if (place == places.disks.end()) {
         continue;
      }
      VmDiskFigures& sum = traffic.byHostDisk[place->hostDisk];
      const auto before = std::ranges::find(traffic.last, disk.target, &VmDiskFigures::target);
      if (before != traffic.last.end() || isFirst) {
         AddGrowth(sum, isFirst ? VmDiskFigures() : *before, disk);
      }
   }
   traffic.last = figures.disks;
}

} // namespace LinuxHost
