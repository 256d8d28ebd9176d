#include "corvax/descriptor.h"

#include <unistd.h>

namespace Corvax {

Descriptor::~Descriptor()
{
   if (_number >= 0) {
      ::close(_number);
   }
}

} // namespace Corvax
