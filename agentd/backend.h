#pragma once

#include "corvax/logger.h"
#include "linuxHost/linuxHostProvider.h"
#include "simHost/simOptions.h"

#include <memory>
#include <string>

namespace Agentd {

/// Which host the agent samples, and what it was told about it.
struct BackendOptions {
   enum class Kind {
      AUTO,     ///< this machine, with the hypervisor's virtual machines where it answers
      MACHINE,  ///< this machine alone
      SIMULATED ///< one that is made up
   };

   Kind kind = Kind::AUTO;
   int intervalSec = 20; ///< between collections
   LinuxHost::LinuxHostOptions machine;
   std::string hypervisorModule; ///< file of the module that knows libvirt
   std::string libvirtUri;
   SimHost::SimOptions simulation;
};

/// The host that the agent samples: the kernel library's provider and the services in the object
/// registry, for as long as it lives.
class Backend {
public:
   virtual ~Backend() = default;
   /// Starts what follows the host; what is found from then on is told on the channels.
   virtual void Start() = 0;
   virtual void Stop() = 0;
};

std::unique_ptr<Backend> NewBackend(const BackendOptions& options, Corvax::Logger* logger);

} // namespace Agentd
