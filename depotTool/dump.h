#pragma once

#include "depotTool/depotImage.h"
#include "depotTool/textOutput.h"

#include <functional>
#include <string>

namespace DepotTool {

/// Writes the depot in the form of dumpFormat.h. The same content gives the same text.
void Dump(const DepotImage& depot, TextOutput& output);

/// Reads up to that many bytes; fewer only at the end.
using ByteSource = std::function<size_t(char*, size_t)>;

/// Creates a depot, which must not exist, from the text of a dump. Exception, naming the line, for
/// any other text; no file of the depot is there then.
void Restore(const ByteSource& source, const DepotPaths& depot);

} // namespace DepotTool
