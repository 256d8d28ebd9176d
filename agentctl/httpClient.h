#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace Agentctl {

constexpr char kJsonType[] = "application/json";
constexpr char kCsvType[] = "text/csv";

struct HttpResponse {
   int status;
   std::string body;
};

struct ServerAddress {
   std::string host; ///< an IPv6 address without its brackets
   int port;
};

/// Parses "http://HOST[:PORT]", with or without a final slash; InvalidArgumentException for any
/// other text.
ServerAddress ParseServerUrl(std::string_view url);

/// Encodes a text as one part of a URL's path or query: everything but letters, digits and "-._~"
/// becomes %XX.
std::string PercentEncode(std::string_view text);

/// Sends requests to one server. A response of any status is returned; Corvax::Exception, with a
/// text for the user, if there is none.
class HttpClient {
public:
   virtual ~HttpClient() = default;
   virtual HttpResponse Get(const std::string& path, const std::string& accept) = 0;
   virtual HttpResponse Post(const std::string& path, const std::string& json) = 0;
};

/// Connects with the first request and keeps the connection. InvalidArgumentException for a URL
/// that ParseServerUrl refuses.
std::unique_ptr<HttpClient> NewHttpClient(const std::string& url);

} // namespace Agentctl
