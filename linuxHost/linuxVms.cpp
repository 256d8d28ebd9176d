#include "linuxHost/linuxVms.h"

#include "linuxHost/groupTree.h"
#include "linuxHost/kernel/diskReader.h"

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

StorageStatistics& FindRecord(std::vector<WorldStatistics>& records, int32_t worldId)
{
   const auto found = std::ranges::find(records, worldId, &WorldStatistics::worldId);
   return found != records.end() ? found->statistics
                                 : records.emplace_back(WorldStatistics{worldId, {}}).statistics;
}

void AddTraffic(StorageStatistics& sum, const VmDiskFigures& disk)
{
   sum.blocksRead += disk.bytesRead / kBlockSizeBytes;
   sum.blocksWritten += disk.bytesWritten / kBlockSizeBytes;
   sum.readOperations += disk.readOperations;
   sum.writeOperations += disk.writeOperations;
   sum.commands += disk.readOperations + disk.writeOperations + disk.flushOperations;
}

} // namespace

LinuxVms::LinuxVms(const std::string& root, Inventory::Inventory& inventory,
                   const SnapshotSource& snapshots, Corvax::Logger* logger)
   : _root(root), _inventory(inventory), _snapshots(snapshots), _logger(logger), _locator(root)
{
}

void LinuxVms::Replace(const std::vector<VmDescription>& descriptions)
{
   const Processes processes = FindQemuProcesses(_root);
   std::set<std::string> known;
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
   Update(description, FindQemuProcesses(_root));
}

void LinuxVms::Update(const VmDescription& description, const Processes& processes)
{
   // Before the lock: access to the images may be slow, as on a network file system.
   const auto places = FindPlaces(description, processes);
   const std::lock_guard guard(_mutex);
   AssignPorts(description, *places);
   Ref<LinuxVm>& vm = _vms[description.id];
   const bool isNew = !vm;
   if (isNew) {
      vm = MakeRef<LinuxVm>(description.id, _inventory, _snapshots, _logger.Get());
   }
   // Before the new state is published: subscribers to it find everything else up to date.
   vm->SetConfig(MakeConfig(description));
   vm->SetPoolId(PoolIdOfPartition(description.partition));
   vm->SetPlaces(places);
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
                                               const Processes& processes) const
{
   auto places = std::make_shared<VmPlaces>();
   if (description.powerState == PowerState::POWERED_OFF) {
      return places;
   }
   if (const auto found = processes.find(description.id); found != processes.end()) {
      FindProcess(*places, found->second);
   }
   for (const VmDisk& disk : description.disks) {
      places->disks.push_back({disk.target, _locator.FindDisk(disk)});
   }
   return places;
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

void LinuxVms::FindProcess(VmPlaces& places, int32_t pid) const
{
   places.pid = pid;
   places.process = std::make_shared<QemuProcess>(_root, pid);
   places.startUs = places.process->ReadStartUs().value_or(0);
   const std::string path = places.process->ReadGroupPath();
   places.groupPath = IsInMachineGroup(path) ? path : "";
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
   // The high halves are dropped on purpose: a port's counters have 32 bits.
   return HostCtl::Network::PortStatistics{
      static_cast<uint32_t>(card->bytesReceived), static_cast<uint32_t>(card->bytesSent),
      static_cast<uint32_t>(card->packetsReceived), static_cast<uint32_t>(card->packetsSent)};
}

std::map<std::string, std::vector<WorldStatistics>> LinuxVms::GetDiskWorlds() const
{
   std::map<std::string, std::vector<WorldStatistics>> worlds;
   const auto snapshot = _snapshots.GetSnapshot();
   if (!snapshot) {
      return worlds;
   }
   for (const auto& [id, figures] : snapshot->vms) {
      const Ref<LinuxVm> vm = Find(id);
      const auto places = vm ? vm->GetPlaces() : nullptr;
      if (!places || places->pid == -1) {
         continue;
      }
      for (const VmDiskFigures& disk : figures.disks) {
         const auto place = std::ranges::find(places->disks, disk.target, &VmPlaces::Disk::target);
         if (place != places->disks.end()) {
            AddTraffic(FindRecord(worlds[place->hostDisk], places->pid), disk);
         }
      }
   }
   return worlds;
}

} // namespace LinuxHost
