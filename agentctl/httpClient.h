#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Agentctl {

struct HttpAnswer {
   int status;
   std::string body;
};

struct ServerAddress {
   std::string host; ///< an IPv6 address without its brackets
   int port;
};

/// Reads "http://HOST[:PORT]", with or without a slash behind; nothing for any other text.
std::optional<ServerAddress> ParseServerUrl(std::string_view url);

/// A text as one part of a URL's path or query: everything but letters, digits and "-._~" as %XX.
std::string PercentEncode(std::string_view text);

/// Requests to one server. Errors: Corvax::Exception, with a text for the user, when no answer
/// comes; an answer of any status is an answer.
class HttpClient {
public:
   virtual ~HttpClient() = default;
   virtual HttpAnswer Get(const std::string& path, const std::string& accept) = 0;
   virtual HttpAnswer Post(const std::string& path, const std::string& json) = 0;
};

/// InvalidArgumentException for a URL that ParseServerUrl does not read. Connects with the first
/// request and keeps the connection.
std::unique_ptr<HttpClient> NewHttpClient(const std::string& url);

} // namespace Agentctl
