#pragma once

#include "corvax/logger.h"

namespace Metrix {

/// Records an hour and a half of synthetic samples in a scratch depot and checks the samples and
/// rollups, also after loading the depot again, and their deletion. Removes the files at the end.
/// Throws AssertionException for the first failed check, or an exception of the depot.
void TestScratchDepot(Corvax::Logger* logger);

} // namespace Metrix
