#include "linuxHost/kernel/mountInfo.h"

#include "linuxHost/kernel/textParts.h"

#include <limits>
#include <optional>
#include <utility>

namespace LinuxHost {

namespace {

/// Accepts "254:1".
std::optional<DeviceNumber> ParseDeviceNumber(std::string_view text)
{
   constexpr uint64_t kLargest = std::numeric_limits<uint32_t>::max();
   const std::optional<uint64_t> majorNumber = ParseNumber(TakePart(text, ':'));
   const std::optional<uint64_t> minorNumber = ParseNumber(text);
   if (!majorNumber || !minorNumber || *majorNumber > kLargest || *minorNumber > kLargest) {
      return std::nullopt;
   }
   return DeviceNumber{static_cast<uint32_t>(*majorNumber), static_cast<uint32_t>(*minorNumber)};
}

/// The kernel writes blanks, line ends and backslashes of these texts as three octal digits.
std::string UnescapeOctal(std::string_view text)
{
   constexpr size_t kDigits = 3;
   std::string plain;
   while (!text.empty()) {
      const std::string_view digits = text.substr(1, kDigits);
      if (text[0] == '\\' && digits.size() == kDigits && digits[0] <= '3' &&
          digits.find_first_not_of("01234567") == std::string_view::npos) {
         plain +=
            static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + digits[2] - '0');
         text.remove_prefix(1 + kDigits);
      } else {
         plain += text[0];
         text.remove_prefix(1);
      }
   }
   return plain;
}

/// Fields: mount id, parent's id, device, root, mount point, options, any number of optional
/// fields, a dash, type, source, options.
std::optional<MountedFileSystem> ParseMount(std::string_view line)
{
   const std::optional<uint64_t> mountId = ParseNumber(TakePart(line, ' '));
   TakePart(line, ' ');
   const std::optional<DeviceNumber> device = ParseDeviceNumber(TakePart(line, ' '));
   const size_t dash = line.find(" - ");
   if (!mountId || !device || dash == std::string_view::npos) {
      return std::nullopt;
   }
   line.remove_prefix(dash + 3);
   const std::string_view type = TakePart(line, ' ');
   return MountedFileSystem{*mountId, *device, type, UnescapeOctal(TakePart(line, ' '))};
}

} // namespace

std::vector<MountedFileSystem> ParseMountInfo(std::string_view mountInfo)
{
   std::vector<MountedFileSystem> fileSystems;
   while (!mountInfo.empty()) {
      if (std::optional<MountedFileSystem> one = ParseMount(TakePart(mountInfo, '\n'))) {
         fileSystems.push_back(std::move(*one));
      }
   }
   return fileSystems;
}

} // namespace LinuxHost
