#pragma once

#include "corvax/descriptor.h"

#include <string>

namespace Bench {

/// A minimal client of the management API: one connection, one request at a time.
///
/// Errors: Exception for anything but an answer with status 200.
class KeepAliveClient {
public:
   explicit KeepAliveClient(int port);

   /// The text of a request for the target ("/api/v1/..."), to be formatted before the measurement.
   static std::string FormatRequest(const std::string& target);
   /// Returns the body of the answer, valid until the next call.
   const std::string& Send(const std::string& request);

private:
   void Receive();

   Corvax::Descriptor _socket;
   std::string _received;
};

} // namespace Bench
