#pragma once

#include "corvax/object.h"

#include <string>

namespace AgentdCommon {

/// A resource pool was destroyed; published on MQ_RESOURCE_POOL_DESTROYED.
struct ResourcePoolDestroyedMsg : Corvax::ObjectImpl {
   ~ResourcePoolDestroyedMsg() override;

   explicit ResourcePoolDestroyedMsg(std::string id) : poolId(std::move(id)) {}

   const std::string poolId;
};

} // namespace AgentdCommon
