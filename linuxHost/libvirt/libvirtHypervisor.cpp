#include "corvax/format.h"
#include "corvax/system.h"
#include "linuxHost/hypervisor.h"
#include "linuxHost/libvirt/domainStats.h"
#include "linuxHost/libvirt/domainXml.h"
#include "linuxHost/libvirt/eventLoop.h"
#include "linuxHost/libvirt/libvirtObjects.h"
#include "linuxHost/libvirt/subscription.h"

#include <libvirt/virterror.h>

#include <utility>

namespace LinuxHost {

namespace {

/// A connection that is silent for seconds times tries is lost.
constexpr int kKeepaliveSec = 5;
constexpr unsigned kKeepaliveTries = 3;

constexpr unsigned kStatGroups = VIR_DOMAIN_STATS_STATE | VIR_DOMAIN_STATS_CPU_TOTAL |
                                 VIR_DOMAIN_STATS_BALLOON | VIR_DOMAIN_STATS_VCPU |
                                 VIR_DOMAIN_STATS_INTERFACE | VIR_DOMAIN_STATS_BLOCK;
constexpr unsigned kStatFlags =
   VIR_CONNECT_GET_ALL_DOMAINS_STATS_ACTIVE | VIR_CONNECT_GET_ALL_DOMAINS_STATS_NOWAIT;

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

/// Writing to a lost connection raises SIGPIPE, which the process must ignore.
///
/// Locking: libvirt's own. Threads that must not wait for each other need a connection each: while
/// one waits in a call, libvirt 9.0.0 may delay another's call on the same connection until the
/// next packet arrives, at the latest that of the keepalive (measured: 5.0 s).
class LibvirtConnection : public HypervisorConnection {
public:
   LibvirtConnection(const std::string& uri, HypervisorListener* listener)
      : _connection(::virConnectOpen(uri.c_str()))
   {
      if (!_connection) {
         Fail(Corvax::Format("connect to %1", uri));
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

   std::vector<VmDescription> ListVms() override
   {
      virDomainPtr* list = nullptr;
      if (::virConnectListAllDomains(_connection.get(), &list, 0) < 0) {
         Fail("list the virtual machines");
      }
      const DomainList domains(list);
      std::vector<VmDescription> vms;
      for (virDomainPtr* domain = list; *domain != nullptr; ++domain) {
         if (std::optional<VmDescription> vm = Describe(*domain)) {
            vms.push_back(std::move(*vm));
         }
      }
      return vms;
   }

   std::optional<VmDescription> DescribeVm(const std::string& id) override
   {
      const DomainHandle domain(::virDomainLookupByUUIDString(_connection.get(), id.c_str()));
      if (!domain) {
         return FailUnlessGone(Corvax::Format("look up VM %1", id));
      }
      return Describe(domain.get());
   }

   std::vector<VmRecord> ReadVms(unsigned parts, const std::vector<std::string>& /*ids*/,
                                 bool /*waitForMonitor*/) override
   {
      std::vector<VmRecord> vms;
      const int64_t takenUs = Corvax::System::GetMonotonicTime();
      virDomainStatsRecordPtr* list = nullptr;
      const int count =
         ::virConnectGetAllDomainStats(_connection.get(), kStatGroups, &list, kStatFlags);
      if (count < 0) {
         Fail("read the statistics of the virtual machines");
      }
      const RecordList records(list);
      for (int i = 0; i < count; ++i) {
         const virDomainStatsRecord& record = *list[i];
         auto vm = ParseDomainStats({record.params, static_cast<size_t>(record.nparams)}, parts);
         if (vm) {
            vm->id = GetUuid(record.dom);
            vm->takenUs = takenUs;
            vm->startId = static_cast<int32_t>(::virDomainGetID(record.dom));
            vms.push_back(std::move(*vm));
         }
      }
      return vms;
   }

private:
   // Destroyed in reverse order: each needs those before it until its end.
   EventLoopUse _loop;
   ConnectionHandle _connection;
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
