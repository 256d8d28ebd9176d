#include "qsh/framework/state.h"

namespace QshFramework {

CommandError::CommandError(std::string message) : Exception(std::move(message)) {}
CommandError::~CommandError() = default;

TessQshState::~TessQshState() = default;

int RunGuarded(TessQshState& state, const std::function<void()>& operation)
{
   try {
      operation();
      return kCommandDone;
   } catch (const Corvax::Exception& e) {
      state.PrintError(e.GetMessage());
   } catch (const std::exception& e) {
      state.PrintError(e.what());
   }
   return kCommandFailed;
}

} // namespace QshFramework
