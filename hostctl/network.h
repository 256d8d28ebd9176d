#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// NICs of the host and the ports that they are attached to. Ownership: the caller owns every raw
/// pointer that is returned. Errors: Lib::HostCtlException from every operation.
namespace HostCtl::Network {

/// As the NIC attached to the port sees it.
struct PortStatistics {
   uint64_t bytesReceived = 0;
   uint64_t bytesSent = 0;
   uint64_t packetsReceived = 0;
   uint64_t packetsSent = 0;
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
   /// To be added to the sum of the KB that the NICs of the last GetPhysicalNics received and sent,
   /// so that it grows by their traffic alone when one joins or leaves them. 0 until one does.
   virtual int64_t GetSumCorrectionKb();
};

class NetworkFactory {
public:
   /// The port with the id `portId`; null if there is none.
   static Port* GetPort(uint32_t portId);
};

} // namespace HostCtl::Network
