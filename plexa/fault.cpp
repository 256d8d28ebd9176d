#include "plexa/fault.h"

namespace Plexa::Fault {

FaultException::~FaultException() = default;

InvalidArgument::Exception::Exception(std::string invalidProperty)
   : FaultException("Invalid argument" +
                    (invalidProperty.empty() ? std::string() : ": " + invalidProperty)),
     _invalidProperty(std::move(invalidProperty))
{
}
InvalidArgument::Exception::Exception(std::string argument, std::string reason)
   : FaultException("Invalid argument: " + argument + ": " + reason),
     _argument(std::move(argument)), _reason(std::move(reason))
{
}
InvalidArgument::Exception::~Exception() = default;

NotImplemented::Exception::Exception() : FaultException("Operation not implemented") {}
NotImplemented::Exception::~Exception() = default;

} // namespace Plexa::Fault
