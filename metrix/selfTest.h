#pragma once

#include "corvax/logger.h"

namespace Metrix {

/// Records an hour and a half of synthetic samples in a depot of its own, reads it back, rolled up
/// and after loading it again, deletes it and removes its files. A runtime exception says what does
/// not hold.
void TestScratchDepot(Corvax::Logger* logger);

} // namespace Metrix
