#include "agentctl/httpClient.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>
#include <optional>

namespace Agentctl {

namespace {

constexpr int kConnectTimeoutSec = 5;
constexpr int kResponseTimeoutSec = 30;
/// Far above any response of the agent; bounds the memory that a faulty server can make us use.
constexpr size_t kMaxResponseBytes = size_t{64} << 20;

bool IsAlphanumeric(char c)
{
   return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsHostName(std::string_view host)
{
   const auto fits = [](char c) { return IsAlphanumeric(c) || c == '-' || c == '.' || c == '_'; };
   return !host.empty() && std::all_of(host.begin(), host.end(), fits);
}

bool IsIpv6(std::string_view host)
{
   const auto fits = [](char c) { return IsAlphanumeric(c) || c == ':' || c == '.' || c == '%'; };
   return host.find(':') != std::string_view::npos && std::all_of(host.begin(), host.end(), fits);
}

/// Looks the host up again, because the client library reports an unknown name like any other
/// failure to connect.
std::string GetConnectionReason(const std::string& host)
{
   addrinfo hints = {};
   hints.ai_socktype = SOCK_STREAM;
   addrinfo* found = nullptr;
   const int status = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
   if (status != 0) {
      return Corvax::Format("%1: %2", host, ::gai_strerror(status));
   }
   ::freeaddrinfo(found);
   return "nothing accepts connections there";
}

std::string GetReason(httplib::Error error, const std::string& host)
{
   switch (error) {
   case httplib::Error::Connection:
      return GetConnectionReason(host);
   case httplib::Error::ConnectionTimeout:
      return Corvax::Format("no connection within %1 s", kConnectTimeoutSec);
   case httplib::Error::Read:
      return Corvax::Format("the connection was closed, or no data arrived for %1 s",
                            kResponseTimeoutSec);
   case httplib::Error::Write:
      return "the connection was closed";
   case httplib::Error::Canceled:
      return Corvax::Format("the response exceeds %1 MB", kMaxResponseBytes >> 20);
   default:
      return httplib::to_string(error);
   }
}

class HttpClientImpl : public HttpClient {
public:
   HttpClientImpl(const std::string& url, const ServerAddress& address)
      : _url(url), _host(address.host), _client(address.host, address.port)
   {
      const std::string host = IsIpv6(address.host) ? "[" + address.host + "]" : address.host;
      _client.set_default_headers({{"Host", Corvax::Format("%1:%2", host, address.port)}});
      _client.set_connection_timeout(kConnectTimeoutSec);
      _client.set_read_timeout(kResponseTimeoutSec);
      _client.set_write_timeout(kResponseTimeoutSec);
      _client.set_keep_alive(true);
      _client.set_url_encode(false); // callers encode paths
   }

   HttpResponse Get(const std::string& path, const std::string& accept) override
   {
      httplib::Request request;
      request.method = "GET";
      request.path = path;
      request.set_header("Accept", accept);
      return Send(request);
   }

   HttpResponse Post(const std::string& path, const std::string& json) override
   {
      httplib::Request request;
      request.method = "POST";
      request.path = path;
      request.body = json;
      request.set_header("Accept", kJsonType);
      request.set_header("Content-Type", kJsonType);
      return Send(request);
   }

private:
   HttpResponse Send(httplib::Request& request)
   {
      HttpResponse response = {};
      request.content_receiver = [&response](const char* data, size_t length, uint64_t, uint64_t) {
         response.body.append(data, length);
         return response.body.size() <= kMaxResponseBytes;
      };
      const httplib::Result result = _client.send(request);
      if (result) {
         response.status = result->status;
         return response;
      }
      const httplib::Error error = result.error();
      const bool isConnected =
         error != httplib::Error::Connection && error != httplib::Error::ConnectionTimeout;
      throw Corvax::Exception(Corvax::Format(
         isConnected ? "no response from %1: %2" : "cannot reach %1: %2; is agentd running?", _url,
         GetReason(error, _host)));
   }

   const std::string _url;
   const std::string _host;
   httplib::Client _client;
};

/// Between 1 and 65535.
std::optional<int> ParsePort(std::string_view text)
{
   int port = 0;
   const char* const end = text.data() + text.size();
   const auto [stop, error] = std::from_chars(text.data(), end, port);
   const bool isNumber = error == std::errc() && stop == end;
   return isNumber && port >= 1 && port <= 65535 ? std::optional(port) : std::nullopt;
}

std::optional<ServerAddress> TryParseServerUrl(std::string_view url)
{
   constexpr std::string_view kScheme = "http://";
   if (!url.starts_with(kScheme)) {
      return std::nullopt;
   }
   url.remove_prefix(kScheme.size());
   if (url.ends_with('/')) {
      url.remove_suffix(1);
   }
   ServerAddress address = {"", 80};
   const bool isIpv6 = url.starts_with('[');
   const size_t colon = url.find(':', isIpv6 ? url.find(']') : 0);
   if (colon != std::string_view::npos) {
      const std::optional<int> port = ParsePort(url.substr(colon + 1));
      if (!port) {
         return std::nullopt;
      }
      address.port = *port;
      url = url.substr(0, colon);
   }
   if (isIpv6 && !url.ends_with(']')) {
      return std::nullopt;
   }
   address.host = isIpv6 ? url.substr(1, url.size() - 2) : url;
   const bool isValid = isIpv6 ? IsIpv6(address.host) : IsHostName(address.host);
   return isValid ? std::optional(address) : std::nullopt;
}

} // namespace

ServerAddress ParseServerUrl(std::string_view url)
{
   const std::optional<ServerAddress> address = TryParseServerUrl(url);
   if (!address) {
      throw Corvax::InvalidArgumentException(
         Corvax::Format("'%1' is not a URL of the form http://HOST[:PORT]", url));
   }
   return *address;
}

std::string PercentEncode(std::string_view text)
{
   constexpr char kDigits[] = "0123456789ABCDEF";
   std::string result;
   for (const char c : text) {
      if (IsAlphanumeric(c) || c == '-' || c == '.' || c == '_' || c == '~') {
         result += c;
      } else {
         const auto byte = static_cast<unsigned char>(c);
         result += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
      }
   }
   return result;
}

std::unique_ptr<HttpClient> NewHttpClient(const std::string& url)
{
   return std::make_unique<HttpClientImpl>(url, ParseServerUrl(url));
}

} // namespace Agentctl
