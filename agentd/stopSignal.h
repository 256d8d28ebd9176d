#pragma once

#include "corvax/descriptor.h"

#include <chrono>

namespace Agentd {

/// A request to stop: SIGTERM, SIGINT, or one made by the agent itself.
class StopSignal {
public:
   /// Blocks both signals, so construct it before any other thread starts: threads inherit that.
   /// PlatformException if the descriptors cannot be created.
   StopSignal();

   /// From any thread.
   void Request();

   /// Waits for a request for at most this long; true if there is one.
   bool Wait(std::chrono::milliseconds timeout);

private:
   Corvax::Descriptor _signals;  ///< readable after a signal
   Corvax::Descriptor _requests; ///< readable after Request
};

} // namespace Agentd
