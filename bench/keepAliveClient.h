#pragma once

#include <string>

namespace Bench {

/// A client of the management API that does as little as a client can: one connection, one request
/// at a time.
///
/// Errors: Exception of the runtime for anything but an answer with status 200.
class KeepAliveClient {
public:
   explicit KeepAliveClient(int port);
   ~KeepAliveClient();
   KeepAliveClient(const KeepAliveClient&) = delete;
   KeepAliveClient& operator=(const KeepAliveClient&) = delete;

   /// The text of a request for the target, "/api/v1/...", made ahead of the measurement.
   static std::string FormatRequest(const std::string& target);
   /// The body, which is good until the next call.
   const std::string& Send(const std::string& request);

private:
   void Receive();

   int _socket;
   std::string _received;
};

} // namespace Bench
