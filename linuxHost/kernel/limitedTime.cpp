#include "linuxHost/kernel/limitedTime.h"

#include "linuxHost/kernel/saturate.h"

namespace LinuxHost {

uint64_t LimitedTime::ReadUs(ControlGroups& groups, const std::string& vmPath)
{
   constexpr uint64_t kReadingsPerSearch = 10;
   if (_readings++ % kReadingsPerSearch == 0) {
      for (const std::string& path : groups.FindLimitedVmGroups(vmPath)) {
         _lastUs.try_emplace(path);
      }
   }
   for (auto& [path, lastUs] : _lastUs) {
      const std::optional<uint64_t> nowUs = groups.ReadThrottledUs(path);
      if (nowUs && lastUs) {
         _totalUs = SaturatingAdd(_totalUs, SaturatingSubtract(*nowUs, *lastUs));
      }
      lastUs = nowUs;
   }
   std::erase_if(_lastUs, [](const auto& group) { return !group.second; });
   return _totalUs;
}

} // namespace LinuxHost
