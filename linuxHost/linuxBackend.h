#pragma once

#include "linuxHost/hypervisor.h"
#include "linuxHost/linuxHostProvider.h"

#include <memory>
#include <string>

namespace LinuxHost {

/// This Linux machine as the agent's host: the provider for the kernel library, and in the object
/// registry the host system, the resource manager and, where there is a hypervisor, its virtual
/// machines.
///
/// Lives while there is an application object; its destructor takes everything out of the registry.
/// Who installs it as the provider takes it out again.
class LinuxBackend : public HostCtl::HostProvider {
public:
   /// `hypervisor` is null where virtual machines are not to be followed. `intervalSec` is the
   /// collection interval.
   LinuxBackend(const LinuxHostOptions& options, std::shared_ptr<Hypervisor> hypervisor,
                int intervalSec, Corvax::Logger* logger);
   ~LinuxBackend() override;
   LinuxBackend(const LinuxBackend&) = delete;
   LinuxBackend& operator=(const LinuxBackend&) = delete;

   HostCtl::Host* GetHost() override;
   HostCtl::Network::Port* GetPort(uint32_t portId) override;

   /// Starts the threads that follow hypervisor and groups.
   void Start();
   void Stop();

private:
   class Parts;
   const std::unique_ptr<Parts> _parts;
};

/// Loads the hypervisor module and its library. HostCtlException with the reason when one of them
/// is not there.
std::shared_ptr<Hypervisor> LoadHypervisor(const std::string& moduleFile, const std::string& uri);

} // namespace LinuxHost
