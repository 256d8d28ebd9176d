#pragma once

#include <cstddef>
#include <utility>

namespace Corvax {

/// Owns a file descriptor and closes it; negative: none.
class Descriptor {
public:
   explicit Descriptor(int number = -1) noexcept : _number(number) {}
   Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
   Descriptor& operator=(Descriptor other) noexcept
   {
      std::swap(_number, other._number);
      return *this;
   }
   ~Descriptor();

   int Get() const noexcept { return _number; }
   explicit operator bool() const noexcept { return _number >= 0; }

private:
   int _number;
};

/// How the process divides the descriptors that it may have open. The rest, kOtherDescriptors, is
/// for the depot, the log, the hypervisor's connections and the reserve.
struct DescriptorShares {
   size_t keptFiles = 0;   ///< kernel files that stay open between two readings
   size_t connections = 0; ///< of clients
};

constexpr size_t kOtherDescriptors = 64;
constexpr size_t kReservedDescriptors = 16;

/// The process's soft limit.
size_t GetDescriptorLimit();
DescriptorShares GetDescriptorShares();

/// A descriptor that is closed again at once. The reserve is refilled then.
class BriefDescriptor {
public:
   explicit BriefDescriptor(Descriptor descriptor = Descriptor()) noexcept
      : _descriptor(std::move(descriptor))
   {
   }
   BriefDescriptor(BriefDescriptor&&) noexcept = default;
   BriefDescriptor& operator=(BriefDescriptor&&) = delete;
   ~BriefDescriptor();

   int Get() const noexcept { return _descriptor.Get(); }
   explicit operator bool() const noexcept { return static_cast<bool>(_descriptor); }

private:
   Descriptor _descriptor;
};

/// As open(2), close-on-exec. When the process has no descriptor left, one of the reserve is given
/// back for it. None: errno says why. Locking: any thread may call.
BriefDescriptor OpenBriefly(const char* path, int flags);

/// Fills the reserve to kReservedDescriptors, as far as there are descriptors. To be called at the
/// start and now and then. Without a call there is no reserve. Locking: any thread may call.
void FillDescriptorReserve();

} // namespace Corvax
