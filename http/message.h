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

/// Bounds of a request that are not configurable.
constexpr size_t kMaxTargetBytes = size_t{8} << 10;
constexpr size_t kMaxHeaderBytes = size_t{16} << 10;
constexpr size_t kMaxHeaders = 100;

struct Limits {
   size_t maxBodyBytes = 1 << 20;
   /// From a request's first byte to its last, and again until the client has taken the response.
   std::chrono::milliseconds requestTimeout{30000};
   std::chrono::milliseconds idleTimeout{60000}; ///< between requests
   int workers = 4;
   /// More get a 503 and are closed. Lower if the process may have too few descriptors when it
   /// starts to listen, but at least four.
   int maxConnections = 256;
};

using Fields = std::vector<std::pair<std::string, std::string>>;

struct Request {
   std::string method;                      ///< "GET" for a HEAD, too
   std::string path;                        ///< decoded
   Fields query;                            ///< decoded, in order
   std::vector<std::string> pathParameters; ///< decoded, one for each {name} in the route
   std::string accept;                      ///< the Accept header
   std::string contentType;
   std::string body;
};

struct Response {
   int status = 200;
   std::string contentType = "application/json";
   std::string body;
   Fields headers; ///< besides those that the server sets
};

/// The server answers the request with this error. Handlers throw it, and so does the server
/// itself.
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

/// The parts of a request's line and headers that the server uses.
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

/// Length of the request line and headers, up to and including the empty line; nothing if that has
/// not arrived yet. An earlier call has searched the bytes before `from`. Refusal 414 or 431 as
/// soon as one of the two is too long, 400 for a request line that ends without a carriage return.
std::optional<size_t> FindHeadEnd(std::string_view received, size_t from);

/// Parses request line and headers, as measured by FindHeadEnd. Refusal 400 for anything malformed
/// or ambiguous; 411, 413, 414, 415, 417, 431 and 505 for unsupported requests.
RequestHead ParseHead(std::string_view head);

/// "%41" becomes "A". Refusal 400 for a malformed escape and for a NUL.
std::string DecodePercent(std::string_view text, bool plusIsBlank);

/// The segments of a path that begins with "/", each decoded separately: "/a/b%2Fc" is "a", "b/c".
std::vector<std::string> DecodePath(std::string_view path);

/// "a=1&b" becomes a: "1", b: "".
Fields DecodeQuery(std::string_view query);

} // namespace Http
