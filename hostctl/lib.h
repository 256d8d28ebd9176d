#pragma once

#include <exception>
#include <string>

namespace HostCtl::Lib {

/// May be thrown by every operation of the kernel library. Not of the runtime's exception family,
/// so that callers can distinguish the kernel's failures from the agent's own.
class HostCtlException : public std::exception {
public:
   explicit HostCtlException(std::string message);
   ~HostCtlException() override;

   const std::string& GetMessage() const noexcept { return _message; }
   const char* what() const noexcept override { return _message.c_str(); }

private:
   std::string _message;
};

} // namespace HostCtl::Lib
