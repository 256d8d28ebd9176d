#include "linuxHost/kernel/nicReader.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

constexpr std::string_view kLoopback = "lo";

/// In the order of first occurrence.
std::vector<std::string> WithoutRepeats(std::vector<std::string> names)
{
   for (auto name = names.begin(); name != names.end(); ++name) {
      names.erase(std::remove(name + 1, names.end(), *name), names.end());
   }
   return names;
}

NicFigures MakeFigures(const InterfaceCounts& counts)
{
   return {std::string(counts.name),
           HostCtl::Network::PortStatistics{counts.bytesReceived, counts.bytesSent,
                                            counts.packetsReceived, counts.packetsSent}};
}

} // namespace

NicReader::NicReader(const std::string& root, std::vector<std::string> configured)
   : _netPath(root + "/sys/class/net/"), _configured(WithoutRepeats(std::move(configured))),
     _netDev(root + "/proc/net/dev")
{
}

std::vector<NicFigures> NicReader::ReadNics()
{
   std::vector<InterfaceCounts> interfaces = ParseNetDev(_netDev.Read());
   std::erase_if(interfaces,
                 [](const InterfaceCounts& counts) { return counts.name == kLoopback; });
   return _configured.empty() ? FindPhysical(interfaces) : FindConfigured(interfaces);
}

std::vector<NicFigures>
NicReader::FindConfigured(const std::vector<InterfaceCounts>& interfaces) const
{
   std::vector<NicFigures> nics;
   for (const std::string& name : _configured) {
      const auto found =
         std::find_if(interfaces.begin(), interfaces.end(),
                      [&name](const InterfaceCounts& counts) { return counts.name == name; });
      nics.push_back(found == interfaces.end() ? NicFigures{name, {}} : MakeFigures(*found));
   }
   return nics;
}

std::vector<NicFigures> NicReader::FindPhysical(const std::vector<InterfaceCounts>& interfaces)
{
   ++_reads;
   std::vector<NicFigures> nics;
   for (const InterfaceCounts& counts : interfaces) {
      if (HasDevice(counts.name)) {
         nics.push_back(MakeFigures(counts));
      }
   }
   std::erase_if(_interfaces,
                 [this](const auto& entry) { return entry.second.lastRead != _reads; });
   if (nics.empty()) {
      std::transform(interfaces.begin(), interfaces.end(), std::back_inserter(nics), MakeFigures);
   }
   return nics;
}

bool NicReader::HasDevice(std::string_view name)
{
   auto known = _interfaces.find(name);
   if (known == _interfaces.end()) {
      std::error_code ignored; // an error counts as absence
      const bool hasDevice =
         std::filesystem::exists(_netPath + std::string(name) + "/device", ignored);
      known = _interfaces.try_emplace(std::string(name), Interface{hasDevice, 0}).first;
   }
   known->second.lastRead = _reads;
   return known->second.hasDevice;
}

} // namespace LinuxHost
