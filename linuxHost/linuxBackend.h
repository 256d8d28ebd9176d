#pragma once

#include "corvax/logger.h"
#include "linuxHost/hypervisor.h"
#include "linuxHost/linuxHostProvider.h"

#include <memory>
#include <string>

namespace LinuxHost {

/// This Linux machine as the agent's host: the provider for the kernel library, and in the object
/// registry the host system, the resource manager and, where there is a hypervisor, its virtual
/// machines.
///
/// Needs the application object for as long as it lives; its destructor unregisters everything. The
/// installer must also uninstall it as the provider.
class LinuxBackend : public HostCtl::HostProvider {
public:
   /// Without a hypervisor (null) there are no virtual machines. `intervalSec` is the collection
   /// interval.
   LinuxBackend(const LinuxHostOptions& options, const std::shared_ptr<Hypervisor>& hypervisor,
                int intervalSec, Corvax::Logger* logger);
   ~LinuxBackend() override;
   LinuxBackend(const LinuxBackend&) = delete;
   LinuxBackend& operator=(const LinuxBackend&) = delete;

   HostCtl::Host* GetHost() override;
   HostCtl::Network::Port* GetPort(uint32_t portId) override;

   /// Starts the threads that watch hypervisor and control groups.
   void Start();
   /// Takes at most two seconds. False when something hangs that may still use this object, which
   /// then must not be destroyed.
   bool Stop();

private:
   class Parts;
   const std::unique_ptr<Parts> _parts;
};

/// Loads the hypervisor module and, with it, the hypervisor's library. HostCtlException with the
/// reason when one of them cannot be loaded.
std::shared_ptr<Hypervisor> LoadHypervisor(const std::string& moduleFile, const std::string& uri);

} // namespace LinuxHost
