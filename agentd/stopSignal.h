#pragma once

#include <chrono>

namespace Agentd {

/// The wish to stop: SIGTERM, SIGINT or a part of the agent itself.
class StopSignal {
public:
   /// Takes over both signals; to be made before any other thread starts, so that none of them gets
   /// a signal itself. PlatformException.
   StopSignal();
   ~StopSignal();
   StopSignal(const StopSignal&) = delete;
   StopSignal& operator=(const StopSignal&) = delete;

   /// From any thread.
   void Request();

   /// Waits until a stop is wished, at most so long; whether it is.
   bool Wait(std::chrono::milliseconds atMost);

private:
   int _signals;  ///< readable once a signal came
   int _requests; ///< readable once Request was called
};

} // namespace Agentd
