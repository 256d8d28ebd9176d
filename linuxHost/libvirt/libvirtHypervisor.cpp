#include "corvax/format.h"
#include "corvax/system.h"
#include "linuxHost/hypervisor.h"
#include "linuxHost/libvirt/domainStats.h"
#include "linuxHost/libvirt/domainXml.h"
#include "linuxHost/libvirt/eventLoop.h"
#include "linuxHost/libvirt/libvirtObjects.h"
#include "linuxHost/libvirt/subscription.h"

#include <libvirt/virterror.h>

#include <algorithm>
#include <map>
#include <span>
#include <utility>

namespace LinuxHost {

namespace {

/// A connection that is silent for seconds times tries is lost.
constexpr int kKeepaliveSec = 5;
constexpr unsigned kKeepaliveTries = 3;

/// Handles of virtual machines that a connection keeps; far more than run on a host.
constexpr size_t kMostHandles = 4096;

/// A domain takes longer than that only while the daemon waits for its monitor: the figures are
/// read at the end of that time.
constexpr int64_t kUsualReadUs = 50'000;

unsigned GetStatGroups(unsigned parts)
{
   unsigned groups = VIR_DOMAIN_STATS_STATE;
   if (parts & VM_BASICS) {
      groups |= VIR_DOMAIN_STATS_CPU_TOTAL | VIR_DOMAIN_STATS_INTERFACE;
   }
   if (parts & VM_VCPUS) {
      groups |= VIR_DOMAIN_STATS_VCPU;
   }
   if (parts & VM_MONITOR) {
      groups |= VIR_DOMAIN_STATS_BALLOON | VIR_DOMAIN_STATS_BLOCK;
   }
   return groups;
}

/// The daemon works through the domains one after the other.
class ReadTimes {
public:
   ReadTimes(int64_t startUs, int64_t endUs, int count)
      : _startUs(std::max(startUs, endUs - kUsualReadUs * count)), _endUs(endUs), _count(count)
   {
   }

   int64_t Get(int index) const
   {
      return _startUs + (_endUs - _startUs) * (2 * int64_t{index} + 1) / (2 * int64_t{_count});
   }

private:
   int64_t _startUs;
   int64_t _endUs;
   int _count;
};

Quen::Vm::PowerState GetPowerState(int state)
{
   switch (state) {
   case VIR_DOMAIN_RUNNING:
   case VIR_DOMAIN_BLOCKED:
   case VIR_DOMAIN_SHUTDOWN: // shutting down, still running
      return Quen::Vm::PowerState::POWERED_ON;
   case VIR_DOMAIN_PAUSED:
   case VIR_DOMAIN_PMSUSPENDED:
      return Quen::Vm::PowerState::SUSPENDED;
   default:
      return Quen::Vm::PowerState::POWERED_OFF;
   }
}

/// After a failed call: returns if the reason is that the domain has gone, else throws.
std::nullopt_t FailUnlessGone(std::string_view attempt)
{
   if (::virGetLastErrorCode() != VIR_ERR_NO_DOMAIN) {
      Fail(attempt);
   }
   return std::nullopt;
}

/// Unset when the domain has gone. Neither call uses the domain's monitor: the daemon knows the
/// answers.
std::optional<VmDescription> Describe(virDomainPtr domain)
{
   const std::string id = GetUuid(domain);
   int state = VIR_DOMAIN_NOSTATE;
   if (::virDomainGetState(domain, &state, nullptr, 0) < 0) {
      return FailUnlessGone(Corvax::Format("read the state of VM %1", id));
   }
   const Text xml(::virDomainGetXMLDesc(domain, 0));
   if (!xml) {
      return FailUnlessGone(Corvax::Format("read the XML of VM %1", id));
   }
   VmDescription vm = ParseDomainXml(xml.get());
   vm.powerState = GetPowerState(state);
   if (vm.powerState == Quen::Vm::PowerState::POWERED_OFF) {
      for (VmCard& card : vm.cards) {
         card.tap.clear(); // a name for the next start, not an existing device
      }
   }
   return vm;
}

/// Read-only: the daemon refuses whatever changes something. Writing to a lost connection raises
/// SIGPIPE, which the process must ignore.
///
/// Locking: libvirt's own. Threads that must not wait for each other need a connection each: while
/// one waits in a call, libvirt 9.0.0 may delay another's call on the same connection until the
/// next packet arrives, at the latest that of the keepalive (measured: 5.0 s).
class LibvirtConnection : public HypervisorConnection {
public:
   LibvirtConnection(const std::string& uri, HypervisorListener* listener)
      : _connection(::virConnectOpenReadOnly(uri.c_str()))
   {
      if (!_connection) {
         FailToConnect(uri);
      }
      // A driver inside this process has no connection to keep alive.
      if (::virConnectSetKeepAlive(_connection.get(), kKeepaliveSec, kKeepaliveTries) < 0 &&
          ::virGetLastErrorCode() != VIR_ERR_NO_SUPPORT) {
         Fail(Corvax::Format("enable keepalive on the connection to %1", uri));
      }
      if (listener != nullptr) {
         _subscription = std::make_unique<Subscription>(_connection.get(), *listener);
         _subscription->Start();
      }
   }

   std::vector<std::string> ListVms() override
   {
      virDomainPtr* list = nullptr;
      if (::virConnectListAllDomains(_connection.get(), &list, 0) < 0) {
         Fail("list the virtual machines");
      }
      const DomainList domains(list);
      std::vector<std::string> ids;
      for (virDomainPtr* domain = list; *domain != nullptr; ++domain) {
         ids.push_back(GetUuid(*domain));
      }
      return ids;
   }

   std::optional<VmDescription> DescribeVm(const std::string& id) override
   {
      const DomainHandle domain(::virDomainLookupByUUIDString(_connection.get(), id.c_str()));
      if (!domain) {
         return FailUnlessGone(Corvax::Format("look up VM %1", id));
      }
      return Describe(domain.get());
   }

   std::vector<VmRecord> ReadVms(unsigned parts, const std::vector<std::string>& ids,
                                 bool waitForMonitor) override
   {
      const unsigned flags =
         waitForMonitor ? 0U : unsigned{VIR_CONNECT_GET_ALL_DOMAINS_STATS_NOWAIT};
      const std::vector<virDomainPtr> domains = FindHandles(ids);
      if (!ids.empty() && domains.empty()) {
         return {};
      }
      const int64_t startUs = Corvax::System::GetMonotonicTime();
      virDomainStatsRecordPtr* list = nullptr;
      const int count = Read(domains, GetStatGroups(parts), flags, list);
      const RecordList records(list);
      return ParseRecords({list, static_cast<size_t>(count)}, parts,
                          {startUs, Corvax::System::GetMonotonicTime(), count});
   }

private:
   /// A null-terminated array for libvirt, without the machines that have gone; empty without any.
   std::vector<virDomainPtr> FindHandles(const std::vector<std::string>& ids)
   {
      if (_handles.size() > kMostHandles) {
         _handles.clear();
      }
      std::vector<virDomainPtr> domains;
      for (const std::string& id : ids) {
         DomainHandle& handle = _handles[id];
         if (!handle) {
            handle.reset(::virDomainLookupByUUIDString(_connection.get(), id.c_str()));
         }
         if (handle) {
            domains.push_back(handle.get());
         } else {
            FailUnlessGone(Corvax::Format("look up VM %1", id));
         }
      }
      if (!domains.empty()) {
         domains.push_back(nullptr);
      }
      return domains;
   }

   /// Of these domains, or of all that run. Returns the length of the list, which the caller frees.
   int Read(std::vector<virDomainPtr> domains, unsigned groups, unsigned flags,
            virDomainStatsRecordPtr*& list)
   {
      const int count =
         domains.empty()
            ? ::virConnectGetAllDomainStats(_connection.get(), groups, &list,
                                            flags | VIR_CONNECT_GET_ALL_DOMAINS_STATS_ACTIVE)
            : ::virDomainListGetStats(domains.data(), groups, &list, flags);
      if (count < 0) {
         Fail("read the statistics of virtual machines");
      }
      return count;
   }

   static std::vector<VmRecord> ParseRecords(std::span<const virDomainStatsRecordPtr> list,
                                             unsigned parts, const ReadTimes& times)
   {
      std::vector<VmRecord> vms;
      for (size_t i = 0; i < list.size(); ++i) {
         const virDomainStatsRecord& record = *list[i];
         auto vm = ParseDomainStats({record.params, static_cast<size_t>(record.nparams)}, parts);
         if (vm) {
            vm->id = GetUuid(record.dom);
            vm->takenUs = times.Get(static_cast<int>(i));
            vm->startId = static_cast<int32_t>(::virDomainGetID(record.dom));
            vms.push_back(std::move(*vm));
         }
      }
      return vms;
   }

   // Destroyed in reverse order: each needs those before it until its end.
   EventLoopUse _loop;
   ConnectionHandle _connection;
   std::map<std::string, DomainHandle> _handles; // used by ReadVms alone
   std::unique_ptr<Subscription> _subscription;
};

class LibvirtHypervisor : public Hypervisor {
public:
   explicit LibvirtHypervisor(std::string uri) : _uri(std::move(uri)) {}

   std::unique_ptr<HypervisorConnection> Connect(HypervisorListener* listener) override
   {
      return std::make_unique<LibvirtConnection>(_uri, listener);
   }

private:
   EventLoopUse _loop;
   const std::string _uri;
};

} // namespace

} // namespace LinuxHost

/// HostCtlException where libvirt cannot be used at all.
extern "C" __attribute__((visibility("default"))) LinuxHost::Hypervisor*
NewHypervisor(const char* uri)
{
   return new LinuxHost::LibvirtHypervisor(uri);
}
