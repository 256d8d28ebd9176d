#pragma once

#include "corvax/exception.h"

#include <string>

/// Faults of the management API: each is a type with an exception that carries it to the caller.
namespace Plexa::Fault {

class FaultException : public Corvax::Exception {
public:
   explicit FaultException(std::string message) : Exception(std::move(message)) {}
   ~FaultException() override;
};

/// The request is not acceptable.
struct InvalidArgument {
   class Exception : public FaultException {
   public:
      /// `invalidProperty` names the property at fault; empty when it is not told.
      explicit Exception(std::string invalidProperty = {});
      ~Exception() override;

      const std::string& GetInvalidProperty() const { return _invalidProperty; }

   private:
      std::string _invalidProperty;
   };
};

/// The operation is refused.
struct NotImplemented {
   class Exception : public FaultException {
   public:
      Exception();
      ~Exception() override;
   };
};

} // namespace Plexa::Fault
