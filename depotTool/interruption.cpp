#include "depotTool/interruption.h"

#include <csignal>

namespace DepotTool {

namespace {

volatile std::sig_atomic_t isInterrupted = 0;

extern "C" void OnSignal(int /*number*/)
{
   isInterrupted = 1;
}

} // namespace

void CatchSignals()
{
   std::signal(SIGINT, OnSignal);
   std::signal(SIGTERM, OnSignal);
   std::signal(SIGHUP, OnSignal);
}

void ThrowIfInterrupted()
{
   if (isInterrupted != 0) {
      throw Interrupted();
   }
}

} // namespace DepotTool
