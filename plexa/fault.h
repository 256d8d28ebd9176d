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
      /// `invalidProperty` is the property that the fault names to the API's clients.
      explicit Exception(std::string invalidProperty = {});
      /// The fault names no property; argument ("startTime") and reason ("is not before endTime")
      /// are for the agent's own use. The message contains both.
      Exception(std::string argument, std::string reason);
      ~Exception() override;

      const std::string& GetInvalidProperty() const { return _invalidProperty; }
      /// Both are empty unless the exception was created with them.
      const std::string& GetArgument() const { return _argument; }
      const std::string& GetReason() const { return _reason; }

   private:
      std::string _invalidProperty;
      std::string _argument;
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
