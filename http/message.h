#pragma once

#include "corvax/exception.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Http {

/// What bounds a request besides Limits.
constexpr size_t kMaxTargetBytes = size_t{8} << 10;
constexpr size_t kMaxHeaderBytes = size_t{16} << 10;
constexpr size_t kMaxHeaders = 100;

struct Limits {
   size_t maxBodyBytes = 1 << 20;
   /// From a request's first byte to its last, and again for its response to be taken.
   std::chrono::milliseconds requestTimeout{30000};
   std::chrono::milliseconds idleTimeout{60000}; ///< between requests
   int workers = 4;
   int maxConnections = 256; ///< further ones get 503 and are closed
};

using Fields = std::vector<std::pair<std::string, std::string>>;

struct Request {
   std::string method;                      ///< "GET" for a HEAD, too
   std::string path;                        ///< decoded
   Fields query;                            ///< decoded, in order
   std::vector<std::string> pathParameters; ///< decoded, one for each {name} of the route
   std::string accept;                      ///< the Accept header
   std::string contentType;
   std::string body;
};

struct Response {
   int status = 200;
   std::string contentType = "application/json";
   std::string body;
   Fields headers; ///< further ones, e.g. Allow
};

/// A request that is answered with an error. A handler may throw it, too.
class Refusal : public Corvax::Exception {
public:
   Refusal(int status, std::string message, Fields headers = {});
   ~Refusal() override;

   int GetStatus() const noexcept { return _status; }
   const Fields& GetHeaders() const noexcept { return _headers; }

private:
   int _status;
   Fields _headers;
};

/// What the server needs of a request's line and headers.
struct RequestHead {
   std::string method;
   std::string path;  ///< as sent, percent-encoded
   std::string query; ///< as sent, without the "?"
   std::string accept;
   std::string contentType;
   uint64_t contentLength = 0;
   bool acceptsGzip = false;
   bool expectsContinue = false;
   bool close = false; ///< the client wants the connection closed after the response
};

/// Length of request line and headers with the empty line that ends them, nothing when that has not
/// come yet. Bytes before `from` were looked at by an earlier call. Refusal 414 or 431 as soon
/// as one of them is too long, 400 for a line that ends without a carriage return.
std::optional<size_t> FindHeadEnd(std::string_view received, size_t from);

/// Takes request line and headers apart, as FindHeadEnd measured them. Whatever could be read in
/// two ways is refused: 400, or 411, 413, 414, 415, 417, 431 and 505 for what is not supported.
RequestHead ParseHead(std::string_view head);

/// "%41" becomes "A". Refusal 400 for an escape that is cut off or is none, and for a NUL.
std::string DecodePercent(std::string_view text, bool plusIsBlank);

/// The segments of a path that begins with "/", each decoded by itself: "/a/b%2Fc" is "a", "b/c".
std::vector<std::string> DecodePath(std::string_view path);

/// "a=1&b" is a: 1 and b: "".
Fields DecodeQuery(std::string_view query);

} // namespace Http
