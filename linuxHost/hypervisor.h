#pragma once

#include "quen/inventory.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The hypervisor that runs the virtual machines of this host, as the backend needs it.
namespace LinuxHost {

/// A virtual machine's network card.
struct VmCard {
   int32_t key = 0;        ///< the device key, 4000 + the card's number
   bool onNetwork = false; ///< its traffic passes a device of the host, the tap
   bool linkUp = false;
   std::string tap; ///< the device's name; empty while there is none
};

/// A virtual machine's disk.
struct VmDisk {
   enum class Image { FILE, BLOCK_DEVICE, NETWORK, NONE };

   std::string target; ///< as the guest's bus has it, "vda"
   Image image = Image::NONE;
   std::string path; ///< of a FILE or BLOCK_DEVICE
};

struct VmDescription {
   std::string id; ///< the UUID, lower case
   std::string name;
   Quen::Vm::PowerState powerState = Quen::Vm::PowerState::POWERED_OFF;
   int64_t memoryMb = 0;
   std::string partition; ///< the resource partition, "/machine/gold/web"; empty: the default one
   std::vector<VmCard> cards;
   std::vector<VmDisk> disks;
};

/// Times of a virtual CPU since the virtual machine's start, microseconds.
struct VcpuFigures {
   uint64_t usedUs = 0;
   uint64_t waitUs = 0;  ///< blocked
   uint64_t readyUs = 0; ///< could have run, but had no CPU
};

/// Traffic of a card as its guest sees it, since the virtual machine's start.
struct VmCardFigures {
   std::string tap;
   uint64_t bytesReceived = 0;
   uint64_t bytesSent = 0;
   uint64_t packetsReceived = 0;
   uint64_t packetsSent = 0;
};

/// Traffic of a disk since the virtual machine's start.
struct VmDiskFigures {
   std::string target;
   uint64_t bytesRead = 0;
   uint64_t bytesWritten = 0;
   uint64_t readOperations = 0;
   uint64_t writeOperations = 0;
   uint64_t flushOperations = 0;
};

struct VmFigures {
   uint64_t usedUs = 0;            ///< CPU time of the whole virtual machine
   std::vector<VcpuFigures> vcpus; ///< by number; one that is off has zeroes
   uint64_t balloonCurrentKb = 0;  ///< memory that the guest has now
   uint64_t balloonMaximumKb = 0;
   uint64_t rssKb = 0; ///< host memory that the process holds
   /// When the guest's balloon driver last reported, seconds; 0: never.
   uint64_t guestReportSec = 0;
   std::vector<VmCardFigures> cards;
   std::vector<VmDiskFigures> disks;
};

/// All running virtual machines that answered, at one time.
struct VmSnapshot {
   int64_t takenUs = 0;                  ///< wall clock before the call that gave it
   std::map<std::string, VmFigures> vms; ///< by id
};

/// What a connection tells on a thread of its own. The handlers return soon and call no connection.
class HypervisorListener {
public:
   virtual ~HypervisorListener();
   /// The virtual machine came, went, or is not what it was.
   virtual void OnVmChanged(const std::string& id) = 0;
   virtual void OnConnectionLost(const std::string& reason) = 0;
};

/// Its destructor closes it; no handler is called after that.
///
/// Errors: HostCtl::Lib::HostCtlException naming what was asked and why it failed.
/// Locking: its own; any thread may call. Threads that must not wait for each other's calls have a
/// connection each. Not to be destroyed while a lock is held that the listener's handlers take.
class HypervisorConnection {
public:
   virtual ~HypervisorConnection();

   /// All virtual machines, running or not.
   virtual std::vector<VmDescription> ListVms() = 0;
   /// Nothing when there is none of that id.
   virtual std::optional<VmDescription> DescribeVm(const std::string& id) = 0;
   /// One bulk call. A virtual machine that is not running is left out, and so is one whose monitor
   /// is held by another call; one whose monitor stops answering now holds the call up.
   virtual VmSnapshot ReadSnapshot() = 0;
};

class Hypervisor {
public:
   virtual ~Hypervisor();
   /// `listener`, unless null, outlives the connection. HostCtlException where there is none to be
   /// had.
   virtual std::unique_ptr<HypervisorConnection> Connect(HypervisorListener* listener) = 0;
};

/// The hypervisor's library is a module of its own, loaded where it is installed: the name of its
/// one entry, which returns a new Hypervisor for a URI such as "qemu:///system".
constexpr char kHypervisorEntryName[] = "NewHypervisor";
using HypervisorEntry = Hypervisor* (*)(const char* uri);

} // namespace LinuxHost
