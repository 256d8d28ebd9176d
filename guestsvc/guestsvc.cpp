#include "guestsvc/guestsvc.h"

namespace Guestsvc {

HaVirtualMachine::~HaVirtualMachine() = default;
Guestsvc::~Guestsvc() = default;
VmPowerOpMsg::~VmPowerOpMsg() = default;
VmUnregisterMsg::~VmUnregisterMsg() = default;

} // namespace Guestsvc
