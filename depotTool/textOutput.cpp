#include "depotTool/textOutput.h"

#include "depotTool/interruption.h"

namespace DepotTool {

namespace {

constexpr size_t kBlockBytes = size_t{1} << 16;

} // namespace

void TextOutput::EndLine()
{
   _text += '\n';
   if (_text.size() >= kBlockBytes) {
      Flush();
   }
}

void TextOutput::Flush()
{
   ThrowIfInterrupted();
   if (!_stream.write(_text.data(), static_cast<std::streamsize>(_text.size())).flush()) {
      throw OutputClosed();
   }
   _text.clear();
}

} // namespace DepotTool
