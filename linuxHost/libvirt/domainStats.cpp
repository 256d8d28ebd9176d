#include "linuxHost/libvirt/domainStats.h"

#include "linuxHost/kernel/textParts.h"
#include "linuxHost/kernel/units.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace LinuxHost {

namespace {

/// One of libvirt's fields, and the figure that it is stored in.
template <class Figures>
struct Field {
   std::string_view name;
   uint64_t Figures::* figure;
   uint64_t divisor = 1;
};

constexpr Field<VmBasics> kBasicFields[] = {
   {"cpu.time", &VmBasics::usedUs, kNanosecondsPerMicrosecond},
};
constexpr Field<VmMemory> kMemoryFields[] = {
   {"balloon.current", &VmMemory::balloonCurrentKb},
   {"balloon.maximum", &VmMemory::balloonMaximumKb},
   {"balloon.rss", &VmMemory::rssKb},
   {"balloon.last-update", &VmMemory::guestReportSec},
};
/// libvirt's own "wait" is no idle time: it is waiting for a CPU, as "delay".
constexpr Field<VcpuFigures> kVcpuFields[] = {
   {"time", &VcpuFigures::usedUs, kNanosecondsPerMicrosecond},
   {"halt_wait_ns.sum", &VcpuFigures::waitUs, kNanosecondsPerMicrosecond},
   {"delay", &VcpuFigures::readyUs, kNanosecondsPerMicrosecond},
};
/// libvirt has already swapped the tap's directions, so that these are the VM's.
constexpr Field<VmCardFigures> kCardFields[] = {
   {"rx.bytes", &VmCardFigures::bytesReceived},
   {"tx.bytes", &VmCardFigures::bytesSent},
   {"rx.pkts", &VmCardFigures::packetsReceived},
   {"tx.pkts", &VmCardFigures::packetsSent},
};
constexpr Field<VmDiskFigures> kDiskFields[] = {
   {"rd.bytes", &VmDiskFigures::bytesRead},      {"wr.bytes", &VmDiskFigures::bytesWritten},
   {"rd.reqs", &VmDiskFigures::readOperations},  {"wr.reqs", &VmDiskFigures::writeOperations},
   {"fl.reqs", &VmDiskFigures::flushOperations},
};

struct DiskEntry {
   VmDiskFigures figures;
   bool hasCounters = false;
};

template <class Signed>
uint64_t AtLeastZero(Signed value)
{
   return value > 0 ? static_cast<uint64_t>(value) : 0;
}

/// Accepts all of libvirt's integer types: a field's type differs between its drivers.
std::optional<uint64_t> GetInteger(const virTypedParameter& parameter)
{
   switch (parameter.type) {
   case VIR_TYPED_PARAM_INT:
      return AtLeastZero(parameter.value.i);
   case VIR_TYPED_PARAM_UINT:
      return parameter.value.ui;
   case VIR_TYPED_PARAM_LLONG:
      return AtLeastZero(parameter.value.l);
   case VIR_TYPED_PARAM_ULLONG:
      return parameter.value.ul;
   default:
      return std::nullopt;
   }
}

std::string GetText(const virTypedParameter& parameter)
{
   const bool isText = parameter.type == VIR_TYPED_PARAM_STRING && parameter.value.s != nullptr;
   return isText ? parameter.value.s : "";
}

std::string_view GetName(const virTypedParameter& parameter)
{
   return {parameter.field, ::strnlen(parameter.field, sizeof parameter.field)};
}

/// False when the parameter is not one of the fields.
template <class Figures, size_t Count>
bool Fill(Figures& figures, const Field<Figures> (&fields)[Count], std::string_view name,
          const virTypedParameter& parameter)
{
   const auto field = std::find_if(std::begin(fields), std::end(fields),
                                   [&](const auto& candidate) { return candidate.name == name; });
   const std::optional<uint64_t> value = GetInteger(parameter);
   if (field == std::end(fields) || !value) {
      return false;
   }
   figures.*(field->figure) = *value / field->divisor;
   return true;
}

/// "net.2.rx.bytes": the number 2 and the name "rx.bytes".
struct ItemField {
   uint32_t number = 0;
   std::string_view name;
};

/// Unset for a field of another group and for the group's count.
std::optional<ItemField> ParseItemField(std::string_view name, std::string_view group)
{
   if (!name.starts_with(group)) {
      return std::nullopt;
   }
   name.remove_prefix(group.size());
   const std::optional<uint64_t> number = ParseNumber(TakePart(name, '.'));
   if (!number || *number > std::numeric_limits<uint32_t>::max() || name.empty()) {
      return std::nullopt;
   }
   return ItemField{static_cast<uint32_t>(*number), name};
}

/// Collects the figures of a record, parameter by parameter.
class Record {
public:
   void Take(const virTypedParameter& parameter)
   {
      const std::string_view name = GetName(parameter);
      if (name == "state.state") {
         _isRunning = GetInteger(parameter) == VIR_DOMAIN_RUNNING;
      } else if (const auto vcpu = ParseItemField(name, "vcpu.")) {
         TakeVcpuField(*vcpu, parameter);
      } else if (const auto card = ParseItemField(name, "net.")) {
         TakeCardField(*card, parameter);
      } else if (const auto disk = ParseItemField(name, "block.")) {
         TakeDiskField(*disk, parameter);
      } else if (name == "balloon.available") {
         _monitor.memory.guestAvailableKb = GetInteger(parameter);
      } else if (name == "balloon.usable") {
         _monitor.memory.guestUsableKb = GetInteger(parameter);
      } else if (Fill(_monitor.memory, kMemoryFields, name, parameter)) {
         _hasRss = _hasRss || name == "balloon.rss";
      } else {
         _hasCpuTime = Fill(_basics, kBasicFields, name, parameter) || _hasCpuTime;
      }
   }

   std::optional<VmRecord> Finish(unsigned parts)
   {
      if (!_isRunning) {
         return std::nullopt;
      }
      VmRecord record;
      if ((parts & VM_BASICS) && _hasCpuTime) {
         AddCards();
         record.basics = std::move(_basics);
      }
      if (parts & VM_VCPUS) {
         record.vcpus = std::move(_vcpus);
      }
      if ((parts & VM_MONITOR) && WasMonitorAsked()) {
         AddDisks();
         record.monitor = std::move(_monitor);
      }
      return record;
   }

private:
   /// A record made without the monitor lacks balloon.rss, balloon.last-update and the disks'
   /// counters. Only balloon.rss, the process's size, decides: libvirt adds it for every running
   /// domain whose monitor it could use, the others only with a balloon device or with disks.
   bool WasMonitorAsked() const { return _hasRss; }

   void TakeVcpuField(const ItemField& field, const virTypedParameter& parameter)
   {
      if (field.number > kHighestVcpuNumber) {
         return;
      }
      if (field.number >= _vcpus.size()) {
         _vcpus.resize(field.number + 1);
      }
      Fill(_vcpus[field.number], kVcpuFields, field.name, parameter);
   }

   void TakeCardField(const ItemField& field, const virTypedParameter& parameter)
   {
      VmCardFigures& card = _cards[field.number];
      if (field.name == "name") {
         card.tap = GetText(parameter);
      } else {
         Fill(card, kCardFields, field.name, parameter);
      }
   }

   void TakeDiskField(const ItemField& field, const virTypedParameter& parameter)
   {
      DiskEntry& disk = _disks[field.number];
      if (field.name == "name") {
         disk.figures.target = GetText(parameter);
      } else if (Fill(disk.figures, kDiskFields, field.name, parameter)) {
         disk.hasCounters = true;
      }
   }

   void AddCards()
   {
      for (auto& [number, card] : _cards) {
         if (!card.tap.empty()) {
            _basics.cards.push_back(std::move(card));
         }
      }
   }

   /// An image and its base images have an entry each, all under the disk's name. The first is the
   /// image that the VM uses; its counters include all of the VM's traffic.
   void AddDisks()
   {
      std::vector<std::string> seen;
      for (auto& [number, disk] : _disks) {
         const std::string& target = disk.figures.target;
         if (target.empty() || std::find(seen.begin(), seen.end(), target) != seen.end()) {
            continue;
         }
         seen.push_back(target);
         if (disk.hasCounters) {
            _monitor.disks.push_back(std::move(disk.figures));
         }
      }
   }

   VmBasics _basics;
   std::vector<VcpuFigures> _vcpus;
   VmMonitorFigures _monitor;
   std::map<uint32_t, VmCardFigures> _cards;
   std::map<uint32_t, DiskEntry> _disks;
   bool _isRunning = false;
   bool _hasCpuTime = false;
   bool _hasRss = false;
};

} // namespace

std::optional<VmRecord> ParseDomainStats(std::span<const virTypedParameter> parameters,
                                         unsigned parts)
{
   Record record;
   for (const virTypedParameter& parameter : parameters) {
      record.Take(parameter);
   }
   return record.Finish(parts);
}

} // namespace LinuxHost
