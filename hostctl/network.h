#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// NICs of the host and the ports that they are attached to. Ownership: the caller owns every raw
/// pointer that is returned. Errors: Lib::HostCtlException from every operation.
namespace HostCtl::Network {

/// As the NIC attached to the port sees it. The counters have 32 bits: those of bytes wrap at 4
/// GiB.
struct PortStatistics {
   uint32_t bytesReceived = 0;
   uint32_t bytesSent = 0;
   uint32_t packetsReceived = 0;
   uint32_t packetsSent = 0;
};

class Port {
public:
   virtual ~Port();
   virtual PortStatistics GetStatistics() = 0;
};

class PhysicalNic {
public:
   virtual ~PhysicalNic();
   virtual std::string GetName() = 0;
   /// Null if the NIC has none.
   virtual Port* GetUplinkPort() = 0;
};

class NetworkInfo {
public:
   virtual ~NetworkInfo();
   virtual std::vector<PhysicalNic*> GetPhysicalNics() = 0;
};

class NetworkFactory {
public:
   /// The port with the id `portId`; null if there is none.
   static Port* GetPort(uint32_t portId);
};

} // namespace HostCtl::Network
