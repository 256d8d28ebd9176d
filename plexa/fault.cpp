#include "plexa/fault.h"

namespace Plexa::Fault {

namespace {

std::string ComposeMessage(const std::string& invalidProperty, const std::string& reason)
{
   std::string message = "Invalid argument";
   for (const std::string& part : {invalidProperty, reason}) {
      message += part.empty() ? "" : ": " + part;
   }
   return message;
}

} // namespace

FaultException::~FaultException() = default;

InvalidArgument::Exception::Exception(std::string invalidProperty, std::string reason)
   : FaultException(ComposeMessage(invalidProperty, reason)),
     _invalidProperty(std::move(invalidProperty)), _reason(std::move(reason))
{
}
InvalidArgument::Exception::~Exception() = default;

NotImplemented::Exception::Exception() : FaultException("Operation not implemented") {}
NotImplemented::Exception::~Exception() = default;

} // namespace Plexa::Fault
