#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Network cards and the switch ports behind them. Ownership: what is returned as a raw pointer
/// belongs to the caller. Errors: Lib::HostCtlException from every operation.
namespace HostCtl::Network {

/// Counted from the side of what is attached to the port. 32-bit: a counter wraps at 4 GiB.
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
   /// Null when the card has none.
   virtual Port* GetUplinkPort() = 0;
};

class NetworkInfo {
public:
   virtual ~NetworkInfo();
   virtual std::vector<PhysicalNic*> GetPhysicalNics() = 0;
};

class NetworkFactory {
public:
   /// The port of that id, null when there is none.
   static Port* GetPort(uint32_t portId);
};

} // namespace HostCtl::Network
