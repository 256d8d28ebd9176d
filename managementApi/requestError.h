#pragma once

#include "corvax/exception.h"

#include <string>

namespace ManagementApi {

/// A request that the management API does not carry out; the message says which part of it and why.
class RequestError : public Corvax::Exception {
public:
   RequestError(int status, const std::string& message) : Exception(message), _status(status) {}

   int GetStatus() const { return _status; }

private:
   int _status;
};

/// An argument of the request is not acceptable.
class BadArgument : public RequestError {
public:
   BadArgument(const std::string& argument, const std::string& reason)
      : RequestError(400, argument + ": " + reason)
   {
   }
};

/// What the request names does not exist.
class NotFound : public RequestError {
public:
   explicit NotFound(const std::string& message) : RequestError(404, message) {}
};

} // namespace ManagementApi
