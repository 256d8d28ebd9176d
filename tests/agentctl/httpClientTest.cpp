#include "agentctl/httpClient.h"
#include "corvax/descriptor.h"
#include "http/server.h"
#include "tests/fakes/messageOf.h"
#include "tests/fakes/quietLogger.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace {

using namespace Agentctl;

std::string ToUrl(int port)
{
   return "http://127.0.0.1:" + std::to_string(port);
}

/// A port that refuses connections and that nobody else can get.
class RefusingPort {
public:
   RefusingPort()
   {
      sockaddr_in address = {};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      auto* const generic = reinterpret_cast<sockaddr*>(&address);
      socklen_t length = sizeof address;
      EXPECT_EQ(::bind(_socket.Get(), generic, length), 0);
      EXPECT_EQ(::getsockname(_socket.Get(), generic, &length), 0);
      _port = ntohs(address.sin_port);
   }
   int Get() const { return _port; }

private:
   const Corvax::Descriptor _socket{::socket(AF_INET, SOCK_STREAM, 0)};
   int _port = 0;
};

TEST(HttpClientTest, AcceptsOnlyUrlsOfServers)
{
   const std::tuple<const char*, const char*, int> good[] = {
      {"http://127.0.0.1:8697", "127.0.0.1", 8697},
      {"http://a-b.c/", "a-b.c", 80},
      {"http://[::1]:1", "::1", 1},
      {"http://[fe80::1]", "fe80::1", 80}};
   for (const auto& [url, host, port] : good) {
      const ServerAddress address = ParseServerUrl(url);
      EXPECT_EQ(address.host, host);
      EXPECT_EQ(address.port, port);
   }
   for (const char* const bad :
        {"", "127.0.0.1:8697", "https://a", "http://", "http://:1", "http://a:", "http://a:0",
         "http://a:65536", "http://a:1x", "http://a/b", "http://u@a", "http://[::1", "http://[a]",
         "http://[::1]x:1", "http://a\r\nb"}) {
      EXPECT_THROW(ParseServerUrl(bad), Corvax::InvalidArgumentException) << bad;
   }
}

TEST(HttpClientTest, ReturnsResponsesOfAnyStatus)
{
   const auto logger = Corvax::MakeRef<QuietLogger>();
   Http::Server server(
      {},
      [](int status, const std::string&, Http::Response& response) {
         response.body = "E" + std::to_string(status);
      },
      logger.Get());
   server.Route("GET", "/a b", [](const Http::Request& request, Http::Response& response) {
      response.body = request.path + request.query.at(0).second + request.accept;
   });
   server.Route("POST", "/p", [](const Http::Request& request, Http::Response& response) {
      response.body = request.body + request.contentType;
   });
   const auto client = NewHttpClient(ToUrl(server.Listen("127.0.0.1:0")));
   EXPECT_EQ(client->Get("/a%20b?c=%26", "text/csv").body, "/a b&text/csv");
   EXPECT_EQ(client->Post("/p", "[]").body, "[]application/json");
   const HttpResponse refusal = client->Get("/none", "");
   EXPECT_EQ(refusal.status, 404);
   EXPECT_EQ(refusal.body, "E404");
}

TEST(HttpClientTest, SaysWhyThereIsNoResponse)
{
   const RefusingPort port;
   const std::string url = ToUrl(port.Get());
   EXPECT_EQ(MessageOf([&] { NewHttpClient(url)->Get("/", ""); }),
             "cannot reach " + url + ": nothing accepts connections there; is agentd running?");
}

} // namespace
