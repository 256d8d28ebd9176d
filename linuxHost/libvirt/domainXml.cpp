#include "linuxHost/libvirt/domainXml.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/textParts.h"

#include <pugixml.hpp>

#include <algorithm>
#include <limits>
#include <optional>
#include <set>
#include <string>

namespace LinuxHost {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr int32_t kFirstCardKey = 4000;
constexpr uint64_t kBytesPerMb = 1U << 20U;

std::string_view Trimmed(std::string_view text)
{
   text.remove_prefix(std::min(text.size(), text.find_first_not_of(kBlanks)));
   return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

/// The value of one of libvirt's scaled integers in bytes. The unit is "b", "byte", "bytes", or the
/// letter of a power: of 1024 alone and in "KiB", of 1000 in "KB"; without a unit it is KiB.
uint64_t ParseBytes(std::string_view text, std::string_view unitText)
{
   const std::string unit = LowerCase(Trimmed(unitText));
   uint64_t bytes = ParseNumber(Trimmed(text)).value_or(0);
   if (unit == "b" || unit == "byte" || unit == "bytes") {
      return bytes;
   }
   constexpr std::string_view kPowers = "kmgtpe";
   const size_t power = unit.empty() ? 0 : kPowers.find(unit.front());
   const std::string_view suffix = std::string_view(unit).substr(std::min<size_t>(unit.size(), 1));
   if (power == std::string_view::npos || (!suffix.empty() && suffix != "ib" && suffix != "b")) {
      return 0;
   }
   for (size_t i = 0; i <= power; ++i) {
      if (__builtin_mul_overflow(bytes, suffix == "b" ? 1000U : 1024U, &bytes)) {
         return std::numeric_limits<uint64_t>::max();
      }
   }
   return bytes;
}

/// 3 for "net3"; unset for a name that a user chose, and for a number too large for a key.
std::optional<int32_t> ParseCardNumber(std::string_view alias)
{
   constexpr std::string_view kPrefix = "net";
   if (!alias.starts_with(kPrefix)) {
      return std::nullopt;
   }
   constexpr uint64_t kEnd = std::numeric_limits<int32_t>::max() - kFirstCardKey;
   const std::optional<uint64_t> number = ParseNumber(alias.substr(kPrefix.size()));
   return number && *number < kEnd ? std::optional(static_cast<int32_t>(*number)) : std::nullopt;
}

/// Whether the traffic of a NIC of that type passes a device of the host, or a port of a switch in
/// user space, that is the NIC's alone.
bool HasHostDevice(std::string_view interfaceType)
{
   constexpr std::string_view kTypes[] = {"network", "bridge", "ethernet", "direct", "vhostuser"};
   return std::find(std::begin(kTypes), std::end(kTypes), interfaceType) != std::end(kTypes);
}

VmCard ParseCard(const pugi::xml_node& interface)
{
   VmCard card;
   card.onNetwork = HasHostDevice(interface.attribute("type").value());
   card.linkUp = std::string_view(interface.child("link").attribute("state").value()) != "down";
   card.tap = interface.child("target").attribute("dev").value();
   return card;
}

/// A NIC's number is that of its alias, which it keeps while others come and go. A NIC without an
/// alias gets its index, or the next free number: passed-through NICs have aliases of another kind,
/// so the others' numbers may differ from their indexes.
std::vector<VmCard> ParseCards(const pugi::xml_node& devices)
{
   std::vector<VmCard> cards;
   std::vector<std::optional<int32_t>> numbers;
   std::set<int32_t> taken;
   for (const pugi::xml_node interface : devices.children("interface")) {
      cards.push_back(ParseCard(interface));
      numbers.push_back(ParseCardNumber(interface.child("alias").attribute("name").value()));
      if (numbers.back()) {
         taken.insert(*numbers.back());
      }
   }
   for (size_t i = 0; i < cards.size(); ++i) {
      int32_t number = numbers[i].value_or(static_cast<int32_t>(i));
      while (!numbers[i] && !taken.insert(number).second) {
         ++number;
      }
      cards[i].key = kFirstCardKey + number;
   }
   return cards;
}

/// Unset for a drive without a medium, and for a disk without a target name.
std::optional<VmDisk> ParseDisk(const pugi::xml_node& node)
{
   const std::string_view type = node.attribute("type").as_string("file");
   const std::string_view device = node.attribute("device").as_string("disk");
   const pugi::xml_node source = node.child("source");
   VmDisk disk;
   disk.target = node.child("target").attribute("dev").value();
   if (type == "file" || type == "block") {
      disk.path = source.attribute(type == "file" ? "file" : "dev").value();
   }
   if (!disk.path.empty()) {
      disk.image = type == "file" ? VmDisk::Image::FILE : VmDisk::Image::BLOCK_DEVICE;
   } else if (type == "network" && source) {
      disk.image = VmDisk::Image::NETWORK;
   }
   const bool hasMedium = source && (type == "file" || type == "block" ? !disk.path.empty() : true);
   const bool isDrive = device == "cdrom" || device == "floppy";
   if (disk.target.empty() || (isDrive && !hasMedium)) {
      return std::nullopt;
   }
   return disk;
}

} // namespace

VmDescription ParseDomainXml(std::string_view xml)
{
   pugi::xml_document document;
   const pugi::xml_parse_result result =
      document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8);
   if (!result) {
      throw HostCtl::Lib::HostCtlException(
         Corvax::Format("Cannot read the XML of a virtual machine: %1 at offset %2",
                        result.description(), result.offset));
   }
   const pugi::xml_node domain = document.child("domain");
   VmDescription vm;
   vm.id = LowerCase(Trimmed(domain.child_value("uuid")));
   vm.name = domain.child_value("name");
   if (vm.id.empty()) {
      throw HostCtl::Lib::HostCtlException(Corvax::Format(
         "Cannot read the XML of a virtual machine: no domain with a UUID (name \"%1\")", vm.name));
   }
   const pugi::xml_node memory = domain.child("memory");
   vm.memoryMb = static_cast<int64_t>(
      ParseBytes(memory.child_value(), memory.attribute("unit").value()) / kBytesPerMb);
   vm.hasHugePages = static_cast<bool>(domain.child("memoryBacking").child("hugepages"));
   vm.partition = Trimmed(domain.child("resource").child_value("partition"));
   const pugi::xml_node devices = domain.child("devices");
   vm.cards = ParseCards(devices);
   for (const pugi::xml_node node : devices.children("disk")) {
      if (const std::optional<VmDisk> disk = ParseDisk(node)) {
         vm.disks.push_back(*disk);
      }
   }
   return vm;
}

} // namespace LinuxHost
