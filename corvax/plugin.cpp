#include "corvax/plugin.h"

namespace Corvax {

Plugin::~Plugin() = default;

} // namespace Corvax
