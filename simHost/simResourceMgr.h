#pragma once

#include "hostsvc/resourceMgr.h"
#include "simHost/simState.h"

namespace SimHost {

/// The resource manager of a simulated host: figures of pools, system groups and virtual machines
/// by their ids. An unknown id has none; one of a machine or pool that is not registered has.
Corvax::Ref<Hostsvc::ResourceMgr> NewSimResourceMgr(Corvax::Ref<SimState> state,
                                                    Corvax::Ref<Plexa::MoRef> rootPool);

} // namespace SimHost
