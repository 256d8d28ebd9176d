#pragma once

namespace DepotTool {

/// The user has ended the program.
struct Interrupted {};

/// From now on SIGINT, SIGTERM and SIGHUP only set a flag, so that temporary files are removed.
void CatchSignals();

/// Throws Interrupted after one of these signals. Long work calls it now and then.
void ThrowIfInterrupted();

} // namespace DepotTool
