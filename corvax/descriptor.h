#pragma once

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

} // namespace Corvax
