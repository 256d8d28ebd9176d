#pragma once

#include "hostctl/lib.h"
#include "quen/inventory.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The backend's interface to the hypervisor that runs the virtual machines of this host.
namespace LinuxHost {

/// A virtual machine's NIC.
struct VmCard {
   int32_t key = 0;        ///< the device key, 4000 + the NIC's number
   bool onNetwork = false; ///< its traffic passes a device of the host, the tap
   bool linkUp = false;
   std::string tap; ///< the device's name; empty when there is none
};

/// A virtual machine's disk.
struct VmDisk {
   enum class Image { FILE, BLOCK_DEVICE, NETWORK, NONE };

   std::string target; ///< name on the VM's bus, "vda"
   Image image = Image::NONE;
   std::string path; ///< for FILE and BLOCK_DEVICE
};

struct VmDescription {
   std::string id; ///< the UUID, lower case
   std::string name;
   Quen::Vm::PowerState powerState = Quen::Vm::PowerState::POWERED_OFF;
   int64_t memoryMb = 0;
   bool hasHugePages = false; ///< its memory is in huge pages
   std::string partition; ///< the resource partition, "/machine/gold/web"; empty: the default one
   std::vector<VmCard> cards;
   std::vector<VmDisk> disks;
};

/// Times of a virtual CPU since it was plugged in.
struct VcpuFigures {
   uint64_t usedUs = 0;
   uint64_t waitUs = 0;  ///< halted: the guest had nothing to run; 0 where nobody counts it
   uint64_t readyUs = 0; ///< ready, but without a CPU
};

/// Traffic of a NIC since its device appeared; directions as seen by the VM.
struct VmCardFigures {
   std::string tap;
   uint64_t bytesReceived = 0;
   uint64_t bytesSent = 0;
   uint64_t packetsReceived = 0;
   uint64_t packetsSent = 0;
};

/// Traffic of a disk since the virtual machine's start, or since it was plugged in.
struct VmDiskFigures {
   std::string target;
   uint64_t bytesRead = 0;
   uint64_t bytesWritten = 0;
   uint64_t readOperations = 0;
   uint64_t writeOperations = 0;
   uint64_t flushOperations = 0;
};

/// All counters of a disk.
constexpr uint64_t VmDiskFigures::* kDiskCounters[] = {
   &VmDiskFigures::bytesRead, &VmDiskFigures::bytesWritten, &VmDiskFigures::readOperations,
   &VmDiskFigures::writeOperations, &VmDiskFigures::flushOperations};

/// Figures that the hypervisor can tell without the virtual machine's monitor.
struct VmBasics {
   uint64_t usedUs = 0; ///< CPU time of the whole virtual machine
   std::vector<VmCardFigures> cards;
};

struct VmMemory {
   uint64_t balloonCurrentKb = 0; ///< current size of the guest memory
   uint64_t balloonMaximumKb = 0;
   uint64_t rssKb = 0; ///< resident memory of the process, without huge pages
   /// Memory that the guest's kernel manages, and the part of it that programs could still get, as
   /// its balloon driver reports them; unset where it does not.
   std::optional<uint64_t> guestAvailableKb;
   std::optional<uint64_t> guestUsableKb;
   /// Time of the balloon driver's last report; 0: never.
   uint64_t guestReportSec = 0;
};

/// Figures that only the virtual machine's monitor knows.
struct VmMonitorFigures {
   VmMemory memory;
   std::vector<VmDiskFigures> disks;
};

/// Parts of a virtual machine's figures, to be combined. All of them ask its monitor when nobody
/// else does, even the two that could do without: they hang with a monitor that hangs, except while
/// another call is already waiting for it.
enum VmParts : unsigned {
   VM_BASICS = 1U << 0U,
   VM_VCPUS = 1U << 1U,
   VM_MONITOR = 1U << 2U,
};
constexpr unsigned kNoVmParts = 0; ///< only which virtual machines run; no monitor is asked

/// The answer for one running virtual machine; a part that was not asked for or could not be read
/// is unset.
struct VmRecord {
   std::string id;
   int64_t takenUs = 0;  ///< monotonic time of the reading
   int32_t startId = -1; ///< another number after each start of the virtual machine
   std::optional<VmBasics> basics;
   std::optional<std::vector<VcpuFigures>> vcpus; ///< by number; one that is off has zeroes
   std::optional<VmMonitorFigures> monitor;
};

/// A connection calls these on a thread of its own. They return soon and do not call a connection.
class HypervisorListener {
public:
   virtual ~HypervisorListener();
   /// The virtual machine is new, gone or changed.
   virtual void OnVmChanged(const std::string& id) = 0;
   virtual void OnConnectionLost(const std::string& reason) = 0;
};

/// Its destructor closes it; the listener is not called after that.
///
/// Errors: HostCtl::Lib::HostCtlException naming what was tried and why it failed.
/// Locking: any thread may call, one at a time: threads that must not wait for each other's calls
/// need a connection each. Do not destroy it while holding a lock that the listener takes.
class HypervisorConnection {
public:
   virtual ~HypervisorConnection();

   /// The ids of all virtual machines, running or not.
   virtual std::vector<std::string> ListVms() = 0;
   /// Unset when there is no VM with that id.
   virtual std::optional<VmDescription> DescribeVm(const std::string& id) = 0;
   /// One call for these virtual machines, all running ones where `ids` is empty; leaves out those
   /// that are not running. `parts` are of VmParts.
   ///
   /// A monitor that hangs blocks the call for as long, unless no part is asked for. One that is in
   /// use by another call is waited for with `waitForMonitor`, for half a minute or so; without it,
   /// or after that time, the machine's record lacks VM_MONITOR.
   virtual std::vector<VmRecord> ReadVms(unsigned parts, const std::vector<std::string>& ids,
                                         bool waitForMonitor) = 0;
};

/// The hypervisor is there, but refuses the connection, as for lack of rights.
class RefusedException : public HostCtl::Lib::HostCtlException {
public:
   using HostCtlException::HostCtlException;
   ~RefusedException() override;
};

class Hypervisor {
public:
   virtual ~Hypervisor();
   /// `listener` outlives the connection; null for none. HostCtlException when it cannot connect.
   virtual std::unique_ptr<HypervisorConnection> Connect(HypervisorListener* listener) = 0;
};

/// Entry of the module that uses the hypervisor's library; the module is loaded where that library
/// is installed. Returns a new Hypervisor for a URI such as "qemu:///system".
constexpr char kHypervisorEntryName[] = "NewHypervisor";
using HypervisorEntry = Hypervisor*(const char* uri);

} // namespace LinuxHost
