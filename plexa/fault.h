#pragma once

#include "corvax/exception.h"

#include <string>

/// Faults of the management API: each is a type whose exception reports it to the caller.
namespace Plexa::Fault {

class FaultException : public Corvax::Exception {
public:
   explicit FaultException(std::string message) : Exception(std::move(message)) {}
   ~FaultException() override;
};

/// The request is not valid.
struct InvalidArgument {
   class Exception : public FaultException {
   public:
      /// `invalidProperty` names the property of the request at fault, `reason` says why
      /// ("is not before endTime"). Either may be empty. The message contains both.
      explicit Exception(std::string invalidProperty = {}, std::string reason = {});
      ~Exception() override;

      const std::string& GetInvalidProperty() const { return _invalidProperty; }
      const std::string& GetReason() const { return _reason; }

   private:
      std::string _invalidProperty;
      std::string _reason;
   };
};

/// The service does not implement the operation.
struct NotImplemented {
   class Exception : public FaultException {
   public:
      Exception();
      ~Exception() override;
   };
};

} // namespace Plexa::Fault
