#pragma once

#include "corvax/clock.h"
#include "linuxHost/kernel/saturate.h"

#include <unistd.h>

#include <cstdint>

/// The kernel's units in ours.
namespace LinuxHost {

constexpr uint64_t kBytesPerKb = 1024;
constexpr uint64_t kKbPerMb = 1024;
constexpr uint64_t kHzPerMhz = 1'000'000;
constexpr uint64_t kNanosecondsPerMicrosecond = 1000;

inline uint64_t TicksToUs(uint64_t ticks)
{
   return Scale(ticks, Corvax::kMicrosecondsPerSecond,
                static_cast<uint64_t>(::sysconf(_SC_CLK_TCK)));
}

inline uint64_t PagesToKb(uint64_t pages)
{
   return Scale(pages, static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)), kBytesPerKb);
}

} // namespace LinuxHost
