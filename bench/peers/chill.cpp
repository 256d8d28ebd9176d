#include "bench/peers/measure.h"
#include "bench/peers/work.h"

#include <cstdio>

namespace {

/** For the peers that are not driven from C++: one chill a byte on stdin, answered with the byte.
 */
void ChillOnDemand(const Peers::Options& options)
{
   Peers::Chiller chiller(options.scratch);
   for (int byte = std::getchar(); byte != EOF; byte = std::getchar()) {
      chiller.Chill();
      std::putchar(byte);
      std::fflush(stdout);
   }
}

} // namespace

int main(int argc, char** argv)
{
   return Peers::RunPeer(argc, argv, ChillOnDemand);
}
