#include "bench/peers/measure.h"
#include "bench/peers/work.h"

#include <cstdio>

namespace {

/** For the peers driven from Python: each byte on stdin is answered after a flush. */
void FlushOnDemand(const Peers::Options& options)
{
   const Peers::CacheFlusher flusher(options.scratch);
   for (int byte = std::getchar(); byte != EOF; byte = std::getchar()) {
      flusher.Flush();
      std::putchar(byte);
      std::fflush(stdout);
   }
}

} // namespace

int main(int argc, char** argv)
{
   return Peers::RunPeer(argc, argv, FlushOnDemand);
}
