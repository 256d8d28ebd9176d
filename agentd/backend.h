#pragma once

#include "corvax/logger.h"
#include "linuxHost/linuxHostProvider.h"
#include "simHost/simOptions.h"

#include <memory>
#include <string>

namespace Agentd {

/// Which host the agent samples, and its settings.
struct BackendOptions {
   enum class Kind {
      AUTO,     ///< this machine, with its virtual machines where libvirt is installed
      MACHINE,  ///< this machine without virtual machines
      SIMULATED ///< a simulated host
   };

   Kind kind = Kind::AUTO;
   int intervalSec = 20; ///< between collections
   LinuxHost::LinuxHostOptions machine;
   std::string hypervisorModule; ///< file of the module for libvirt
   std::string libvirtUri;
   SimHost::SimOptions simulation;
};

/// The host that the agent samples. While it lives, its provider is installed in the kernel library
/// and its services are in the object registry.
class Backend {
public:
   virtual ~Backend() = default;
   /// Starts following the host; changes are published on the channels from then on.
   virtual void Start() = 0;
   /// False when something hangs that may still use this object, which then must not be destroyed.
   virtual bool Stop() = 0;
};

std::unique_ptr<Backend> NewBackend(const BackendOptions& options, Corvax::Logger* logger);

} // namespace Agentd
