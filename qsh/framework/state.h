#pragma once

#include "corvax/exception.h"

#include <functional>
#include <string>

namespace QshFramework {

constexpr int kCommandDone = 0;
constexpr int kCommandFailed = 1;

/// A command cannot do what it was asked for.
class CommandError : public Corvax::Exception {
public:
   explicit CommandError(std::string message);
   ~CommandError() override;
};

/// The shell as a command sees it. Each message is printed with a line end behind it.
class TessQshState {
public:
   TessQshState() = default;
   virtual ~TessQshState();
   TessQshState(const TessQshState&) = delete;
   TessQshState& operator=(const TessQshState&) = delete;

   virtual void Print(const std::string& message) = 0;
   virtual void PrintError(const std::string& message) = 0;
};

/// Makes an exception out of `operation` the command's error: prints its message and returns
/// kCommandFailed; kCommandDone when there was none.
int RunGuarded(TessQshState& state, const std::function<void()>& operation);

} // namespace QshFramework
