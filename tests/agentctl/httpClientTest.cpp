#include "agentctl/httpClient.h"
#include "corvax/descriptor.h"
#include "corvax/thread.h"
#include "tests/fakes/messageOf.h"

#include <gtest/gtest.h>
#include <httplib.h>

namespace {

using namespace Agentctl;

/// A server on a free port of the loopback interface.
class TestServer {
public:
   ~TestServer()
   {
      while (!server.is_running()) { // a stop before the start would be lost
         std::this_thread::yield();
      }
      server.stop();
   }

   /// Call it once, after adding the routes.
   void Start()
   {
      _thread = Corvax::StartThread("server",
                                    [this](const std::stop_token&) { server.listen_after_bind(); });
   }

   httplib::Server server;
   const int port = server.bind_to_any_port("127.0.0.1");

private:
   std::jthread _thread;
};

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
   TestServer test;
   test.server.Get("/a b", [](const httplib::Request& request, httplib::Response& response) {
      response.status = 404;
      response.set_content(request.target + " " + request.get_header_value("Accept"), "x/y");
   });
   test.server.Post("/p", [](const httplib::Request& request, httplib::Response& response) {
      response.set_content(request.body + request.get_header_value("Content-Type"), "x/y");
   });
   test.Start();
   // Destroyed before the server, which otherwise waits for the connection's end.
   const auto client = NewHttpClient(ToUrl(test.port));
   const HttpResponse response = client->Get("/a%20b?c=%26", "text/csv");
   EXPECT_EQ(response.status, 404);
   EXPECT_EQ(response.body, "/a%20b?c=%26 text/csv");
   EXPECT_EQ(client->Post("/p", "[]").body, "[]application/json");
}

TEST(HttpClientTest, SaysWhyThereIsNoResponse)
{
   const RefusingPort port;
   const std::string url = ToUrl(port.Get());
   EXPECT_EQ(MessageOf([&] { NewHttpClient(url)->Get("/", ""); }),
             "cannot reach " + url + ": nothing accepts connections there; is agentd running?");
}

} // namespace
