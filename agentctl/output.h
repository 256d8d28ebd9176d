#pragma once

#include <memory>
#include <string_view>

namespace Agentctl {

/// Nobody reads the output any more (EPIPE); the program ends without an error.
struct OutputClosed {};

/// Destination of the results.
class Output {
public:
   virtual ~Output() = default;
   /// Writes all of the text. Throws OutputClosed, or PlatformException for any other failure.
   virtual void Write(std::string_view text) = 0;
   virtual bool IsTerminal() const = 0;
};

std::unique_ptr<Output> NewStandardOutput();

} // namespace Agentctl
