#pragma once

#include "hostctl/network.h"
#include "linuxHost/kernel/kernelFile.h"
#include "linuxHost/kernel/procParsers.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace LinuxHost {

struct NicFigures {
   std::string name;
   /// The low 32 bits of the kernel's counters; unset for a configured NIC that does not exist, and
   /// in the reading that finds another interface behind a NIC's name.
   std::optional<HostCtl::Network::PortStatistics> statistics;
};

/// Traffic of the host's physical NICs.
///
/// These are the configured ones; without configuration the interfaces that have a device; if none
/// has, all interfaces. The loopback interface is never one.
/// Cost: reads /proc/net/dev and one small file for each NIC. Whether an interface has a device is
/// looked up once, and again when its name was gone meanwhile.
/// Errors: HostCtl::Lib::HostCtlException.
/// Locking: none; one thread at a time.
class NicReader {
public:
   /// `root` goes before the path of every file. A name configured twice is one NIC.
   NicReader(const std::string& root, std::vector<std::string> configured);

   /// In the order of the configuration, else in the kernel's.
   std::vector<NicFigures> ReadNics();

private:
   struct Interface {
      explicit Interface(const std::string& path);

      const bool hasDevice;
      KernelFile index;                    // the interface's number, never used twice
      std::optional<uint64_t> indexNumber; // unset until it is read
      uint64_t lastRead = 0;               // number of the last call that met it
   };

   std::vector<NicFigures> FindConfigured(const std::vector<InterfaceCounts>& counts);
   std::vector<NicFigures> FindPhysical(const std::vector<InterfaceCounts>& counts);
   Interface& FindInterface(std::string_view name);
   NicFigures MakeFigures(const InterfaceCounts& counts);

   const std::string _netPath;
   const std::vector<std::string> _configured;
   KernelFile _netDev;
   std::map<std::string, Interface, std::less<>> _interfaces;
   uint64_t _reads = 0; // number of calls of ReadNics
};

} // namespace LinuxHost
