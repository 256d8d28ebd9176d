#include "linuxHost/hypervisor.h"

namespace LinuxHost {

HypervisorListener::~HypervisorListener() = default;
HypervisorConnection::~HypervisorConnection() = default;
RefusedException::~RefusedException() = default;
Hypervisor::~Hypervisor() = default;

} // namespace LinuxHost
