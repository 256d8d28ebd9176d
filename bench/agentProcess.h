#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Bench {

/// The agent as a process of its own, ended with this object.
///
/// Errors: Exception of the runtime where it cannot be started or ends before it serves.
class AgentProcess {
public:
   /// Starts it on the loopback, at a port that it chooses itself, with these arguments besides.
   AgentProcess(const std::string& program, const std::string& stateDirectory,
                const std::vector<std::string>& arguments);
   ~AgentProcess();
   AgentProcess(const AgentProcess&) = delete;
   AgentProcess& operator=(const AgentProcess&) = delete;

   /// Waits until the management API is served.
   int WaitForPort();
   std::string GetId() const { return std::to_string(_process); }

   /// Resident memory without the pages of mapped files, MiB.
   double GetResidentMib() const;
   /// CPU time of all threads up to now, microseconds.
   double GetCpuUs() const;

private:
   int _log; ///< read end of its standard error
   pid_t _process = -1;
};

} // namespace Bench
