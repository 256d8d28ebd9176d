#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace SimHost {

/// What a simulated host is made of.
struct SimOptions {
   uint64_t vms = 20;
   uint64_t pools = 4; ///< below the root pool
   uint64_t disks = 2;
   uint64_t nics = 2;
   uint64_t cpus = 4;
   uint64_t vcpus = 1; ///< of each virtual machine
   uint64_t cards = 1; ///< network cards of each virtual machine
   uint64_t seed = 1;
   uint64_t events = 0;  ///< random events a minute
   uint64_t stuck = 0;   ///< so many of the first virtual machines do not answer from the start on
   uint64_t failing = 0; ///< so many of the last ones fail in part from the start on
   std::string script;   ///< file with events; empty for none
};

/// Reads "vms=200,seed=7,script=FILE": any of the keys above, each at most once, in any order; what
/// is not given keeps its default. FILE cannot hold a comma. InvalidArgumentException, which names
/// the part at fault and what is accepted in its place.
SimOptions ParseSimOptions(std::string_view text);

} // namespace SimHost
