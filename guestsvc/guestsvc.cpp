#include "guestsvc/guestsvc.h"

namespace Guestsvc {

HaVirtualMachine::~HaVirtualMachine() = default;

int64_t HaVirtualMachine::GetNetworkSumCorrectionKb()
{
   return 0;
}

Guestsvc::~Guestsvc() = default;
VmPowerOpMsg::~VmPowerOpMsg() = default;
VmUnregisterMsg::~VmUnregisterMsg() = default;

} // namespace Guestsvc
