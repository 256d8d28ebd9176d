#include "linuxHost/linuxBackend.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "linuxHost/groupTree.h"
#include "linuxHost/groupWatcher.h"
#include "linuxHost/linuxHostSystem.h"
#include "linuxHost/linuxResourceMgr.h"
#include "linuxHost/linuxVms.h"
#include "linuxHost/snapshotPoller.h"
#include "linuxHost/vmWatcher.h"

#include <dlfcn.h>

namespace LinuxHost {

namespace {

/// Where virtual machines are not followed, there are no figures of any.
class NoSnapshots : public SnapshotSource {
public:
   std::shared_ptr<const VmSnapshot> GetSnapshot() const override { return nullptr; }
};

} // namespace

class LinuxBackend::Parts : public HostAddenda {
public:
   Parts(const LinuxHostOptions& options, std::shared_ptr<Hypervisor> hypervisor, int intervalSec,
         Corvax::Logger* logger)
      : _inventory(kRootPoolId, "host"),
        _poller(hypervisor ? std::make_unique<SnapshotPoller>(hypervisor, intervalSec, logger)
                           : nullptr),
        _vms(options.root, _inventory, GetSnapshots(), logger),
        _watcher(hypervisor ? std::make_unique<VmWatcher>(hypervisor, _vms, logger) : nullptr),
        _groups(options.root, intervalSec, _inventory, _vms, logger),
        _provider(NewLinuxHostProvider(options, this, logger))
   {
      Registry().Register(
         AgentdCommon::moid_resourcemgr,
         NewLinuxResourceMgr(options.root, _inventory, _vms, GetSnapshots(), _groups, logger));
      Registry().Register(AgentdCommon::moid_hostsystem,
                          NewLinuxHostSystem(AgentdCommon::moid_hostsystem));
   }

   ~Parts() override
   {
      Registry().Unregister(AgentdCommon::moid_resourcemgr);
      Registry().Unregister(AgentdCommon::moid_hostsystem);
   }

   HostCtl::HostProvider& GetProvider() { return *_provider; }

   void Start()
   {
      // Pools first, for virtual machines are put into them.
      _groups.Start();
      if (_watcher) {
         _watcher->Start();
         _poller->Start();
      }
   }

   void Stop()
   {
      if (_watcher) {
         _poller->Stop();
         _watcher->Stop();
      }
      _groups.Stop();
   }

   std::map<std::string, std::vector<HostCtl::Storage::WorldStatistics>> GetDiskWorlds() override
   {
      return _vms.GetDiskWorlds();
   }

   std::optional<HostCtl::Network::PortStatistics> FindPort(uint32_t portId) override
   {
      return _vms.GetPort(portId);
   }

   std::optional<HostCtl::Resource::CpuLoadHistory> GetHostLoad() override
   {
      return _groups.GetLoad(AgentdCommon::moid_hostsystem);
   }

private:
   static Corvax::ObjectRegistry& Registry()
   {
      return *Corvax::Service::GetApp()->GetObjectRegistry();
   }

   const SnapshotSource& GetSnapshots() const
   {
      return _poller ? static_cast<const SnapshotSource&>(*_poller) : _noSnapshots;
   }

   // In the order in which they need each other.
   const NoSnapshots _noSnapshots;
   Inventory::Inventory _inventory;
   const std::unique_ptr<SnapshotPoller> _poller;
   LinuxVms _vms;
   const std::unique_ptr<VmWatcher> _watcher;
   GroupWatcher _groups;
   const std::unique_ptr<HostCtl::HostProvider> _provider;
};

LinuxBackend::LinuxBackend(const LinuxHostOptions& options, std::shared_ptr<Hypervisor> hypervisor,
                           int intervalSec, Corvax::Logger* logger)
   : _parts(std::make_unique<Parts>(options, std::move(hypervisor), intervalSec, logger))
{
}

LinuxBackend::~LinuxBackend()
{
   _parts->Stop();
}

HostCtl::Host* LinuxBackend::GetHost()
{
   return _parts->GetProvider().GetHost();
}

HostCtl::Network::Port* LinuxBackend::GetPort(uint32_t portId)
{
   return _parts->GetProvider().GetPort(portId);
}

void LinuxBackend::Start()
{
   _parts->Start();
}

void LinuxBackend::Stop()
{
   _parts->Stop();
}

std::shared_ptr<Hypervisor> LoadHypervisor(const std::string& moduleFile, const std::string& uri)
{
   // Never closed: a call that hangs may be inside to the very end.
   void* const module = ::dlopen(moduleFile.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
   void* const entry = module ? ::dlsym(module, kHypervisorEntryName) : nullptr;
   if (entry == nullptr) {
      throw HostCtl::Lib::HostCtlException(
         Corvax::Format("Cannot load the hypervisor's library: %1", ::dlerror()));
   }
   return std::shared_ptr<Hypervisor>(reinterpret_cast<HypervisorEntry>(entry)(uri.c_str()));
}

} // namespace LinuxHost
