#pragma once

#include "http/message.h"

#include <memory>
#include <string>

namespace Http {

/// Turns a response into the bytes that go to the client, by the HTTP library's own server, which
/// encodes, measures and writes it into memory: it never gets a socket.
///
/// Locking: none; one for each thread.
class ResponseWriter {
public:
   struct Form {
      bool withoutBody = false; ///< for a HEAD: the same headers and no body
      bool gzip = false;        ///< the client takes it; short bodies go as they are
      bool close = false;       ///< the connection ends with this response
   };

   ResponseWriter();
   ~ResponseWriter();

   /// Bodies of 1 KiB and more are compressed when their type is exactly application/json or begins
   /// with text/. A header that contains a line break is left out.
   std::string Write(Response response, const Form& form);

private:
   class Library;
   const std::unique_ptr<Library> _library;
};

} // namespace Http
