#include "linuxHost/libvirt/domainStats.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

constexpr uint64_t kNsPerUs = 1000;

/// A field of libvirt's with the figure that it fills.
template <class Figures>
struct Field {
   std::string_view name;
   uint64_t Figures::* figure;
   uint64_t divisor = 1;
};

constexpr Field<VmFigures> kDomainFields[] = {
   {"cpu.time", &VmFigures::usedUs, kNsPerUs},
   {"balloon.current", &VmFigures::balloonCurrentKb},
   {"balloon.maximum", &VmFigures::balloonMaximumKb},
   {"balloon.rss", &VmFigures::rssKb},
   {"balloon.last-update", &VmFigures::guestReportSec},
};
constexpr Field<VcpuFigures> kVcpuFields[] = {
   {"time", &VcpuFigures::usedUs, kNsPerUs},
   {"wait", &VcpuFigures::waitUs, kNsPerUs},
   {"delay", &VcpuFigures::readyUs, kNsPerUs},
};
/// libvirt has turned the tap's directions into the guest's already.
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

/// Any of libvirt's integer types: which one a field has, differs between its drivers.
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

/// Whether the parameter was one of the fields.
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

/// "net.2.rx.bytes" taken apart.
struct ItemField {
   uint32_t number = 0;
   std::string_view name;
};

/// Nothing for a field of another group and for the group's count.
std::optional<ItemField> ParseItemField(std::string_view name, std::string_view group)
{
   if (!name.starts_with(group)) {
      return std::nullopt;
   }
   name.remove_prefix(group.size());
   ItemField field;
   const char* const end = name.data() + name.size();
   const auto result = std::from_chars(name.data(), end, field.number);
   if (result.ec != std::errc() || result.ptr == end || *result.ptr != '.') {
      return std::nullopt;
   }
   field.name = name.substr(static_cast<size_t>(result.ptr - name.data()) + 1);
   return field;
}

/// Collects a record's figures, parameter by parameter.
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
      } else if (Fill(_figures, kDomainFields, name, parameter)) {
         _hasRss = _hasRss || name == "balloon.rss";
      }
   }

   std::optional<VmFigures> Finish()
   {
      if (!_isRunning || !WasMonitorAsked()) {
         return std::nullopt;
      }
      for (auto& [number, card] : _cards) {
         if (!card.tap.empty()) {
            _figures.cards.push_back(std::move(card));
         }
      }
      AddDisks();
      return std::move(_figures);
   }

private:
   /// Without the monitor a record lacks balloon.rss, balloon.last-update and the disks' counters.
   /// The first is the one that tells: the second comes with a balloon device only and the third
   /// with disks, but libvirt adds the process's size for every domain that runs, once it has had
   /// the monitor to itself.
   bool WasMonitorAsked() const { return _hasRss; }

   void TakeVcpuField(const ItemField& field, const virTypedParameter& parameter)
   {
      if (field.number > kHighestVcpuNumber) {
         return;
      }
      if (field.number >= _figures.vcpus.size()) {
         _figures.vcpus.resize(field.number + 1);
      }
      Fill(_figures.vcpus[field.number], kVcpuFields, field.name, parameter);
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

   /// An image and those that it is based on have an entry each, all under the disk's name: the
   /// first is the image that the guest uses, and its counters are all of the guest's traffic.
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
            _figures.disks.push_back(std::move(disk.figures));
         }
      }
   }

   VmFigures _figures;
   std::map<uint32_t, VmCardFigures> _cards;
   std::map<uint32_t, DiskEntry> _disks;
   bool _isRunning = false;
   bool _hasRss = false;
};

} // namespace

std::optional<VmFigures> ParseDomainStats(std::span<const virTypedParameter> parameters)
{
   Record record;
   for (const virTypedParameter& parameter : parameters) {
      record.Take(parameter);
   }
   return record.Finish();
}

} // namespace LinuxHost
