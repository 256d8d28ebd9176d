#pragma once

#include <unistd.h>

#include <utility>

namespace Peers {

/** Owns a file descriptor and closes it; negative: none. */
class Descriptor {
public:
   explicit Descriptor(int number = -1) noexcept : _number(number) {}
   Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
   Descriptor& operator=(Descriptor other) noexcept
   {
      std::swap(_number, other._number);
      return *this;
   }
   ~Descriptor()
   {
      if (_number >= 0) {
         close(_number);
      }
   }

   int Get() const noexcept { return _number; }
   explicit operator bool() const noexcept { return _number >= 0; }

private:
   int _number;
};

} // namespace Peers
