#include "agentctl/httpClient.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>

namespace Agentctl {

namespace {

constexpr int kConnectTimeoutSec = 5;
constexpr int kAnswerTimeoutSec = 30;
/// Far above any answer of the agent; a server that never stops sending ends here.
constexpr size_t kMaxAnswerBytes = size_t{64} << 20;

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

/// Why no connection came about: a name that is not known looks like any other failure there.
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
      return Corvax::Format("the connection was cut, or nothing came for %1 s", kAnswerTimeoutSec);
   case httplib::Error::Write:
      return "the connection was cut";
   case httplib::Error::Canceled:
      return Corvax::Format("the answer has more than %1 MB", kMaxAnswerBytes >> 20);
   default:
      return httplib::to_string(error);
   }
}

class HttpClientImpl : public HttpClient {
public:
   HttpClientImpl(const std::string& url, const ServerAddress& address)
      : _url(url), _host(address.host), _client(address.host, address.port)
   {
      const bool isIpv6 = address.host.find(':') != std::string::npos;
      const std::string host = isIpv6 ? "[" + address.host + "]" : address.host;
      _client.set_default_headers({{"Host", Corvax::Format("%1:%2", host, address.port)}});
      _client.set_connection_timeout(kConnectTimeoutSec);
      _client.set_read_timeout(kAnswerTimeoutSec);
      _client.set_write_timeout(kAnswerTimeoutSec);
      _client.set_keep_alive(true);
      _client.set_url_encode(false); // paths come encoded
   }

   HttpAnswer Get(const std::string& path, const std::string& accept) override
   {
      httplib::Request request;
      request.method = "GET";
      request.path = path;
      request.set_header("Accept", accept);
      return Send(request);
   }

   HttpAnswer Post(const std::string& path, const std::string& json) override
   {
      httplib::Request request;
      request.method = "POST";
      request.path = path;
      request.body = json;
      request.set_header("Accept", "application/json");
      request.set_header("Content-Type", "application/json");
      return Send(request);
   }

private:
   HttpAnswer Send(httplib::Request& request)
   {
      HttpAnswer answer = {};
      request.content_receiver = [&answer](const char* data, size_t length, uint64_t, uint64_t) {
         answer.body.append(data, length);
         return answer.body.size() <= kMaxAnswerBytes;
      };
      const httplib::Result result = _client.send(request);
      if (result) {
         answer.status = result->status;
         return answer;
      }
      const httplib::Error error = result.error();
      const bool isConnected =
         error != httplib::Error::Connection && error != httplib::Error::ConnectionTimeout;
      throw Corvax::Exception(Corvax::Format(
         isConnected ? "no answer from %1: %2" : "cannot reach %1: %2; is agentd running?", _url,
         GetReason(error, _host)));
   }

   const std::string _url;
   const std::string _host;
   httplib::Client _client;
};

} // namespace

std::optional<ServerAddress> ParseServerUrl(std::string_view url)
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
   const size_t bracket = url.starts_with('[') ? url.find(']') : 0;
   const size_t colon = url.find(':', bracket);
   if (bracket == std::string_view::npos) {
      return std::nullopt;
   }
   if (colon != std::string_view::npos) {
      const std::string_view port = url.substr(colon + 1);
      const char* const end = port.data() + port.size();
      const auto [stop, error] = std::from_chars(port.data(), end, address.port);
      if (error != std::errc() || stop != end || address.port < 1 || address.port > 65535) {
         return std::nullopt;
      }
      url = url.substr(0, colon);
   }
   const bool isIpv6 = bracket > 0;
   if (isIpv6 && !url.ends_with(']')) {
      return std::nullopt;
   }
   address.host = isIpv6 ? url.substr(1, url.size() - 2) : url;
   if (isIpv6 ? !IsIpv6(address.host) : !IsHostName(address.host)) {
      return std::nullopt;
   }
   return address;
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
   const std::optional<ServerAddress> address = ParseServerUrl(url);
   if (!address) {
      throw Corvax::InvalidArgumentException("no URL of the form http://HOST[:PORT]: " + url);
   }
   return std::make_unique<HttpClientImpl>(url, *address);
}

} // namespace Agentctl
