#include "linuxHost/linuxBackend.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/exception.h"
#include "corvax/sharedLibrary.h"
#include "linuxHost/groupTree.h"
#include "linuxHost/groupWatcher.h"
#include "linuxHost/linuxHostSystem.h"
#include "linuxHost/linuxResourceMgr.h"
#include "linuxHost/linuxVms.h"
#include "linuxHost/rights.h"
#include "linuxHost/snapshotPoller.h"
#include "linuxHost/vmWatcher.h"

namespace LinuxHost {

namespace {

/// For a host without a hypervisor.
class NoSnapshots : public SnapshotSource {
public:
   std::shared_ptr<const VmSnapshot> GetSnapshot() const override { return nullptr; }
   Quen::Vm::Freshness GetFreshness(const std::string& /*id*/) const override { return {}; }
};

} // namespace

class LinuxBackend::Parts : public ExtraFigures {
public:
   Parts(const LinuxHostOptions& options, const std::shared_ptr<Hypervisor>& hypervisor,
         int intervalSec, Corvax::Logger* logger)
      : _root(options.root), _logger(logger),
        _gate(hypervisor ? std::make_shared<HypervisorGate>(hypervisor) : nullptr),
        _inventory(kRootPoolId, "host"), _history(std::make_shared<VmHistory>(intervalSec)),
        _poller(_gate ? std::make_unique<SnapshotPoller>(_gate, _history, intervalSec, logger)
                      : nullptr),
        _vms(options.root, _inventory, GetSnapshots(), logger),
        _watcher(_gate ? std::make_unique<VmWatcher>(_gate, _vms, logger) : nullptr),
        _groups(options.root, intervalSec, _inventory, _vms, logger),
        _provider(NewLinuxHostProvider(options, this))
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

   /// Every collection gets the host first.
   void BeginCollection() { _history->BeginCollection(); }

   void Start()
   {
      for (const std::string& right : FindMissingRights(_root)) {
         _logger->Log(Corvax::kLogWarning, "%1", right);
      }
      // Pools first: virtual machines refer to them.
      _groups.Start();
      if (_watcher) {
         _watcher->Start();
         _poller->SetRunningHandler(
            [this](const std::set<std::string>& running) { _watcher->OnPolled(running); });
         _poller->Start();
      }
   }

   bool Stop()
   {
      bool hasEnded = true;
      if (_watcher) {
         hasEnded = _poller->Stop();
         hasEnded = _watcher->Stop() && hasEnded;
      }
      _groups.Stop();
      return hasEnded;
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
      return _poller ? static_cast<const SnapshotSource&>(*_history) : _noSnapshots;
   }

   const std::string _root;
   const Corvax::Ref<Corvax::Logger> _logger;
   // Each may use those before it.
   const std::shared_ptr<HypervisorGate> _gate; // shared with calls that hang
   const NoSnapshots _noSnapshots;
   Inventory::Inventory _inventory;
   const std::shared_ptr<VmHistory> _history; // shared with calls that hang
   const std::unique_ptr<SnapshotPoller> _poller;
   LinuxVms _vms;
   const std::unique_ptr<VmWatcher> _watcher;
   GroupWatcher _groups;
   const std::unique_ptr<HostCtl::HostProvider> _provider;
};

LinuxBackend::LinuxBackend(const LinuxHostOptions& options,
                           const std::shared_ptr<Hypervisor>& hypervisor, int intervalSec,
                           Corvax::Logger* logger)
   : _parts(std::make_unique<Parts>(options, hypervisor, intervalSec, logger))
{
}

LinuxBackend::~LinuxBackend()
{
   _parts->Stop();
}

HostCtl::Host* LinuxBackend::GetHost()
{
   _parts->BeginCollection();
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

bool LinuxBackend::Stop()
{
   return _parts->Stop();
}

std::shared_ptr<Hypervisor> LoadHypervisor(const std::string& moduleFile, const std::string& uri)
{
   try {
      const Corvax::SharedLibrary module(moduleFile);
      auto* const entry = module.GetFunction<HypervisorEntry>(kHypervisorEntryName);
      return std::shared_ptr<Hypervisor>(entry(uri.c_str()));
   } catch (const Corvax::Exception& e) {
      throw HostCtl::Lib::HostCtlException(e.GetMessage());
   }
}

} // namespace LinuxHost
