#pragma once

#include "corvax/exception.h"

#include <functional>
#include <string>

namespace QshFramework {

constexpr int kCommandDone = 0;
constexpr int kCommandFailed = 1;

/// A command line is wrong, or a command cannot be carried out.
class CommandError : public Corvax::Exception {
public:
   explicit CommandError(std::string message);
   ~CommandError() override;
};

/// The shell as commands see it. Each message is printed as a line.
class TessQshState {
public:
   TessQshState() = default;
   virtual ~TessQshState();
   TessQshState(const TessQshState&) = delete;
   TessQshState& operator=(const TessQshState&) = delete;

   virtual void Print(const std::string& message) = 0;
   virtual void PrintError(const std::string& message) = 0;
};

/// Runs `operation` and returns kCommandDone. If it throws, prints the message as the command's
/// error and returns kCommandFailed.
int RunGuarded(TessQshState& state, const std::function<void()>& operation);

} // namespace QshFramework
