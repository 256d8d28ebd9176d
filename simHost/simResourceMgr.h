#pragma once

#include "hostsvc/resourceMgr.h"
#include "simHost/simState.h"

namespace SimHost {

/// The resource manager of a simulated host: figures of pools, system groups and VMs by their ids,
/// registered or not. The figures of an unknown id are null or empty.
Corvax::Ref<Hostsvc::ResourceMgr> NewSimResourceMgr(Corvax::Ref<SimState> state,
                                                    Corvax::Ref<Plexa::MoRef> rootPool);

} // namespace SimHost
