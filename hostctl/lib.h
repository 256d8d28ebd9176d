#pragma once

#include <exception>
#include <string>

namespace HostCtl::Lib {

/// What every operation of the kernel control library may throw. Not of the runtime's exception
/// family: its users tell the kernel's failures from the agent's own.
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
