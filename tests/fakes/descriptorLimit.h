#pragma once

#include <sys/resource.h>

/// While it lives, the process may only have descriptors below `limit`; 0: it cannot open any more.
class DescriptorLimit {
public:
   explicit DescriptorLimit(rlim_t limit)
   {
      ::getrlimit(RLIMIT_NOFILE, &_before);
      const rlimit lower = {limit, _before.rlim_max};
      ::setrlimit(RLIMIT_NOFILE, &lower);
   }
   ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &_before); }
   DescriptorLimit(const DescriptorLimit&) = delete;
   DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
   rlimit _before = {};
};
