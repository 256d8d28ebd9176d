#include "agentd/backend.h"

#include "hostctl/host.h"
#include "linuxHost/linuxBackend.h"
#include "simHost/simHost.h"

#include <type_traits>

namespace Agentd {

namespace {

/// A host that is the kernel library's provider while it lives.
template <class HostType>
class BackendImpl : public Backend {
public:
   template <class... Args>
   explicit BackendImpl(Args&&... args) : _host(std::forward<Args>(args)...)
   {
      HostCtl::HostFactory::SetProvider(&_host);
   }
   ~BackendImpl() override { HostCtl::HostFactory::SetProvider(nullptr); }

   void Start() override { _host.Start(); }
   bool Stop() override
   {
      if constexpr (std::is_same_v<decltype(_host.Stop()), bool>) {
         return _host.Stop();
      } else {
         _host.Stop();
         return true;
      }
   }

private:
   HostType _host;
};

/// Null, with one warning, if the module cannot be loaded: libvirt is not installed.
std::shared_ptr<LinuxHost::Hypervisor> TryLoadHypervisor(const BackendOptions& options,
                                                         Corvax::Logger* logger)
{
   try {
      return LinuxHost::LoadHypervisor(options.hypervisorModule, options.libvirtUri);
   } catch (const HostCtl::Lib::HostCtlException& e) {
      logger->Log(Corvax::kLogWarning, "Virtual machines are not sampled: %1", e.GetMessage());
      return nullptr;
   }
}

} // namespace

std::unique_ptr<Backend> NewBackend(const BackendOptions& options, Corvax::Logger* logger)
{
   if (options.kind == BackendOptions::Kind::SIMULATED) {
      return std::make_unique<BackendImpl<SimHost::SimHost>>(options.simulation, logger);
   }
   const auto hypervisor =
      options.kind == BackendOptions::Kind::AUTO ? TryLoadHypervisor(options, logger) : nullptr;
   return std::make_unique<BackendImpl<LinuxHost::LinuxBackend>>(options.machine, hypervisor,
                                                                 options.intervalSec, logger);
}

} // namespace Agentd
