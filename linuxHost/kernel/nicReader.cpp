#include "linuxHost/kernel/nicReader.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

constexpr std::string_view kLoopback = "lo";

// An error counts as absence: devices come and go at any time.
bool Exists(const std::string& path)
{
   std::error_code ignored;
   return std::filesystem::exists(path, ignored);
}

/// In the order of first occurrence.
std::vector<std::string> WithoutRepeats(std::vector<std::string> names)
{
   for (auto name = names.begin(); name != names.end(); ++name) {
      names.erase(std::remove(name + 1, names.end(), *name), names.end());
   }
   return names;
}

} // namespace

NicReader::Interface::Interface(const std::string& path)
   : hasDevice(Exists(path + "/device")), index(path + "/ifindex")
{
}

NicReader::NicReader(const std::string& root, std::vector<std::string> configured)
   : _netPath(root + "/sys/class/net/"), _configured(WithoutRepeats(std::move(configured))),
     _netDev(root + "/proc/net/dev")
{
}

std::vector<NicFigures> NicReader::ReadNics()
{
   ++_reads;
   std::vector<InterfaceCounts> counts = ParseNetDev(_netDev.Read());
   std::erase_if(counts, [](const InterfaceCounts& one) { return one.name == kLoopback; });
   std::vector<NicFigures> nics =
      _configured.empty() ? FindPhysical(counts) : FindConfigured(counts);
   std::erase_if(_interfaces,
                 [this](const auto& entry) { return entry.second.lastRead != _reads; });
   return nics;
}

std::vector<NicFigures> NicReader::FindConfigured(const std::vector<InterfaceCounts>& counts)
{
   std::vector<NicFigures> nics;
   for (const std::string& name : _configured) {
      const auto found = std::ranges::find(counts, name, &InterfaceCounts::name);
      nics.push_back(found == counts.end() ? NicFigures{name, {}} : MakeFigures(*found));
   }
   return nics;
}

std::vector<NicFigures> NicReader::FindPhysical(const std::vector<InterfaceCounts>& counts)
{
   const bool hasPhysical = std::ranges::count_if(counts, [this](const InterfaceCounts& one) {
                               return FindInterface(one.name).hasDevice;
                            }) > 0;
   std::vector<NicFigures> nics;
   for (const InterfaceCounts& one : counts) {
      if (!hasPhysical || FindInterface(one.name).hasDevice) {
         nics.push_back(MakeFigures(one));
      }
   }
   return nics;
}

NicReader::Interface& NicReader::FindInterface(std::string_view name)
{
   auto known = _interfaces.find(name);
   if (known == _interfaces.end()) {
      known = _interfaces.try_emplace(std::string(name), _netPath + std::string(name)).first;
   }
   known->second.lastRead = _reads;
   return known->second;
}

NicFigures NicReader::MakeFigures(const InterfaceCounts& counts)
{
   NicFigures nic{std::string(counts.name), {}};
   Interface& interface = FindInterface(counts.name);
   const std::optional<uint64_t> index = interface.index.ReadNumberIfPresent();
   if (interface.indexNumber && interface.indexNumber != index) {
      _interfaces.erase(_interfaces.find(counts.name));
      return nic;
   }
   interface.indexNumber = index;
   nic.statistics = HostCtl::Network::PortStatistics{counts.bytesReceived, counts.bytesSent,
                                                     counts.packetsReceived, counts.packetsSent};
   return nic;
}

} // namespace LinuxHost
