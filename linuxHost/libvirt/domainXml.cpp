#include "linuxHost/libvirt/domainXml.h"

#include "corvax/format.h"
#include "hostctl/lib.h"

#include <pugixml.hpp>

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <system_error>

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

/// ASCII only: a locale has no say in units and UUIDs.
std::string LowerCase(std::string_view text)
{
   std::string result(text);
   for (char& letter : result) {
      if (letter >= 'A' && letter <= 'Z') {
         letter = static_cast<char>(letter - 'A' + 'a');
      }
   }
   return result;
}

template <class Number>
std::optional<Number> ParseNumber(std::string_view text)
{
   Number number = 0;
   const char* const end = text.data() + text.size();
   const auto result = std::from_chars(text.data(), end, number);
   if (result.ptr != end || result.ec == std::errc::invalid_argument) {
      return std::nullopt;
   }
   return result.ec == std::errc() ? number : std::numeric_limits<Number>::max();
}

/// The value of a scaled integer of libvirt's, in bytes. Units are "b", "byte", "bytes" or a letter
/// that stands for a power, alone or as "KiB" of 1024, as "KB" of 1000; none at all is KiB.
uint64_t ParseBytes(std::string_view text, std::string_view unitText)
{
   const std::string unit = LowerCase(Trimmed(unitText));
   uint64_t bytes = ParseNumber<uint64_t>(Trimmed(text)).value_or(0);
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

/// 3 of "net3"; nothing for a name that somebody chose, or one with no place behind the first key.
std::optional<int32_t> ParseCardNumber(std::string_view alias)
{
   constexpr std::string_view kPrefix = "net";
   if (!alias.starts_with(kPrefix)) {
      return std::nullopt;
   }
   const auto number = ParseNumber<int32_t>(alias.substr(kPrefix.size()));
   const bool fits =
      number && *number >= 0 && *number < std::numeric_limits<int32_t>::max() - kFirstCardKey;
   return fits ? number : std::nullopt;
}

/// Whether traffic of a card of that type goes through a device of the host that belongs to it.
bool HasHostDevice(std::string_view interfaceType)
{
   constexpr std::string_view kTypes[] = {"network", "bridge", "ethernet", "direct"};
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

/// A card's number is that of its alias, which it keeps while others come and go. One without takes
/// its place among the cards, or the next number that is free: passed-through cards have aliases of
/// another kind, and so the others' numbers need not be their places.
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

/// Nothing for a drive without a medium, and for a disk that the guest has under no name.
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
