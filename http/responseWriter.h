#pragma once

#include "http/message.h"

#include <memory>
#include <string>

namespace Http {

/// Turns a response into the bytes for the client. The HTTP library's own server does the encoding,
/// and writes into memory instead of a socket.
///
/// Locking: none; each thread has its own.
class ResponseWriter {
public:
   struct Form {
      bool withoutBody = false; ///< for a HEAD: the same headers, no body
      bool gzip = false;        ///< the client accepts it
      bool close = false;       ///< the connection ends with this response
   };

   ResponseWriter();
   ~ResponseWriter();

   /// With `gzip`, a body of 1 KiB and more is compressed if its type is exactly application/json
   /// or begins with text/. A header that contains a line break is left out.
   std::string Write(Response response, const Form& form);

private:
   class Library;
   const std::unique_ptr<Library> _library;
};

} // namespace Http
