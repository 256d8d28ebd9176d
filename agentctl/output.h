#pragma once

#include <memory>
#include <string_view>

namespace Agentctl {

/// Nobody reads the output any more: a reason to end, not to complain.
struct OutputClosed {};

/// Where results go.
class Output {
public:
   virtual ~Output() = default;
   /// All of the text, at once. OutputClosed; PlatformException for any other failure.
   virtual void Write(std::string_view text) = 0;
   virtual bool IsTerminal() const = 0;
};

std::unique_ptr<Output> NewStandardOutput();

} // namespace Agentctl
