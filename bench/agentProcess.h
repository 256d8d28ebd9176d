#pragma once

#include "corvax/descriptor.h"

#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

namespace Bench {

/// The agent as a process of its own, which ends with this object.
///
/// Errors: Exception if it cannot be started or ends before it serves the API.
class AgentProcess {
public:
   /// Starts it with these arguments, and on a free port of the loopback interface.
   AgentProcess(const std::string& program, const std::string& stateDirectory,
                const std::vector<std::string>& arguments);
   ~AgentProcess();
   AgentProcess(const AgentProcess&) = delete;
   AgentProcess& operator=(const AgentProcess&) = delete;

   /// Waits until the agent serves the management API, and returns its port. Once.
   int WaitForPort();
   std::string GetId() const { return std::to_string(_process); }

private:
   std::string ReadLog();

   Corvax::Descriptor _log; ///< read end of its standard error
   pid_t _process = -1;
   std::jthread _logReader; ///< so that the agent never waits for a reader; ends with the process
};

} // namespace Bench
