#include "plexa/fault.h"

namespace Plexa::Fault {

FaultException::~FaultException() = default;

InvalidArgument::Exception::Exception(std::string invalidProperty)
   : FaultException("Invalid argument" +
                    (invalidProperty.empty() ? std::string() : ": " + invalidProperty)),
     _invalidProperty(std::move(invalidProperty))
{
}
InvalidArgument::Exception::~Exception() = default;

NotImplemented::Exception::Exception() : FaultException("Operation not implemented") {}
NotImplemented::Exception::~Exception() = default;

} // namespace Plexa::Fault
