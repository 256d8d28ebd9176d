#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace SimHost {

constexpr uint64_t kMostVcpus = 64;
constexpr uint64_t kMostCards = 10;

/// The size and behaviour of a simulated host.
struct SimOptions {
   uint64_t vms = 20;
   uint64_t pools = 4; ///< below the root pool
   uint64_t disks = 2;
   uint64_t nics = 2;
   uint64_t cpus = 4;
   uint64_t vcpus = 1; ///< of each virtual machine
   uint64_t cards = 1; ///< NICs of each virtual machine
   uint64_t seed = 1;
   uint64_t events = 0;  ///< random events per minute
   uint64_t stuck = 0;   ///< number of VMs, the first ones, that start stuck
   uint64_t failing = 0; ///< number of VMs, the last ones, that start failing
   uint64_t late = 0;    ///< percent of the runs whose readings of VMs are late or early
   std::string script;   ///< file with events; empty: none
};

/// Parses "vms=200,seed=7,script=FILE": the keys above, each at most once, in any order; the others
/// keep their defaults. FILE cannot contain a comma. InvalidArgumentException, which names the part
/// at fault and the accepted values.
SimOptions ParseSimOptions(std::string_view text);

} // namespace SimHost
