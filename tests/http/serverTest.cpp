#include "http/server.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/messageOf.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include <future>
#include <latch>

namespace {

using namespace Http;
using namespace std::chrono_literals;

constexpr const char* kGet = "GET /text HTTP/1.1\r\nHost: a\r\n\r\n";
constexpr const char* kBig = "GET /big HTTP/1.1\r\nHost: a\r\n\r\n";
constexpr const char* kWait = "GET /wait HTTP/1.1\r\nHost: a\r\n\r\n";
constexpr size_t kBigBytes = 4 << 20;

/// A client on a socket of its own, every wait of which ends after 5 s.
class Client {
public:
   explicit Client(int port, int receiveBufferBytes = 0)
      : _socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
   {
      if (receiveBufferBytes != 0) {
         ::setsockopt(Get(), SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof(int));
      }
      const int one = 1; // pieces go as they are sent
      ::setsockopt(Get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      const timeval longest{5, 0};
      ::setsockopt(Get(), SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(static_cast<uint16_t>(port));
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      EXPECT_EQ(::connect(Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
   }

   Client& Send(const std::string& text)
   {
      EXPECT_EQ(::send(Get(), text.data(), text.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(text.size()));
      return *this;
   }

   /// One response with its body; what came before the end when it does not come whole.
   std::string Receive(bool withBody = true)
   {
      size_t size = 0;
      while ((size = ResponseSize(withBody)) > _input.size() && More()) {
      }
      size = std::min(size, _input.size());
      const std::string response = _input.substr(0, size);
      _input.erase(0, size);
      return response;
   }

   std::string Ask(const std::string& text) { return Send(text).Receive(); }

   /// All until the server closes; "TIMEOUT" at the end when it does not.
   std::string ReceiveToEnd()
   {
      while (More()) {
      }
      return std::exchange(_input, "") + (_timedOut ? "TIMEOUT" : "");
   }

   /// Leaves without a farewell.
   void Reset()
   {
      const linger reset{1, 0};
      ::setsockopt(Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      _socket = Descriptor();
   }

   /// Waits for POLLIN, or for a reset with 0, without reading.
   bool WaitFor(short events)
   {
      pollfd descriptor{Get(), events, 0};
      return ::poll(&descriptor, 1, 5000) == 1;
   }

private:
   int Get() const { return _socket.Get(); }

   /// Of the first response in the input; more than any input has when that is not known yet.
   size_t ResponseSize(bool withBody) const
   {
      const size_t end = _input.find("\r\n\r\n");
      const size_t length = _input.find("Content-Length: ");
      if (end == _input.npos) {
         return end;
      }
      return end + 4 + (withBody && length < end ? std::stoul(_input.substr(length + 16)) : 0);
   }

   bool More()
   {
      char buffer[65536];
      const ssize_t got = ::recv(Get(), buffer, sizeof buffer, 0);
      _timedOut = got < 0 && errno == EAGAIN;
      _input.append(buffer, static_cast<size_t>(std::max<ssize_t>(got, 0)));
      return got > 0;
   }

   Descriptor _socket;
   std::string _input;
   bool _timedOut = false;
};

int StatusOf(const std::string& response)
{
   return response.starts_with("HTTP/1.1 ") ? std::stoi(response.substr(9)) : 0;
}

std::string BodyOf(const std::string& response)
{
   const size_t end = response.find("\r\n\r\n");
   return end == response.npos ? "" : response.substr(end + 4);
}

std::string Inflate(const std::string& gzip)
{
   std::string text(1 << 20, '\0');
   z_stream stream{};
   inflateInit2(&stream, 16 + MAX_WBITS);
   stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gzip.data()));
   stream.avail_in = static_cast<uInt>(gzip.size());
   stream.next_out = reinterpret_cast<Bytef*>(text.data());
   stream.avail_out = static_cast<uInt>(text.size());
   const bool whole = inflate(&stream, Z_FINISH) == Z_STREAM_END;
   text.resize(whole ? stream.total_out : 0);
   inflateEnd(&stream);
   return text;
}

class HttpServerTest : public testing::Test {
protected:
   int Start(Http::Limits limits = {})
   {
      _server = std::make_unique<Http::Server>(
         limits,
         [](int status, const std::string& message, Http::Response& response) {
            response.body = "E" + std::to_string(status) + " " + message;
         },
         _logger.Get());
      AddRoutes();
      return _port = _server->Listen("127.0.0.1:0");
   }

   void AddRoutes()
   {
      _server->Route("GET", "/text",
                     [](const Http::Request&, Http::Response& r) { r.body = "text"; });
      _server->Route("GET", "/big", [](const Http::Request&, Http::Response& r) {
         r.body.assign(kBigBytes, 'x');
      });
      _server->Route("POST", "/echo", [](const Http::Request& q, Http::Response& r) {
         r.contentType = q.contentType;
         r.body = q.body;
      });
      _server->Route("GET", "/p/{a}/q/{b}", Describe);
      _server->Route("GET", "/p/own/q/{b}",
                     [](const Http::Request&, Http::Response& r) { r.body = "own"; });
      _server->Route("PUT", "/p/{a}/q/{b}", Describe);
      _server->Route("GET", "/throw/{what}", [](const Http::Request& q, Http::Response&) {
         const char what = q.pathParameters.at(0).at(0);
         what == 'r'   ? throw Corvax::NotFoundException("failure of runtime")
         : what == 'm' ? throw Corvax::OutOfMemoryException()
         : what == 's' ? throw std::out_of_range("failure of standard")
         : what == 'c' ? throw Http::Refusal(409, "not now")
                       : throw 1;
      });
      _server->Route("GET", "/wait", [this](const Http::Request&, Http::Response& r) {
         _entered.count_down();
         _released.wait();
         r.body = "waited";
      });
   }

   static void Describe(const Http::Request& request, Http::Response& response)
   {
      response.body = request.method + " " + request.path;
      for (const std::string& parameter : request.pathParameters) {
         response.body += " {" + parameter + "}";
      }
      for (const auto& [name, value] : request.query) {
         response.body += " " + name + "=" + value;
      }
      response.body += " " + request.accept;
   }

   std::string Ask(const std::string& text) { return Client(_port).Ask(text); }

   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   std::latch _entered{1};
   std::latch _released{1};
   std::unique_ptr<Http::Server> _server; // ends before what its handlers use
   int _port = 0;
};

TEST_F(HttpServerTest, HandlersGetWhatWasAsked)
{
   Start();
   const std::pair<const char*, const char*> rows[] = {
      {"/p/1/q/a%2Fb+c", "GET /p/1/q/a/b+c {1} {a/b+c} x/y, z"},
      {"/p/own/q/1", "own"},
      {"/p/%6Fwn/q/1", "own"},
      {"/p/a/q/b?z=1&a=2%263&&z=+%2B&n&a==?", "GET /p/a/q/b {a} {b} z=1 a=2&3 z= + n= a==? x/y, z"},
      {"http://host:1/p/a/q/b", "GET /p/a/q/b {a} {b} x/y, z"},
   };
   Client client(_port);
   for (const auto& [target, body] : rows) {
      const std::string response = client.Ask(
         std::string("GET ") + target + " HTTP/1.1\r\nhost:a\r\nACCEPT: x/y \r\naccept:z\r\n\r\n");
      EXPECT_EQ(StatusOf(response), 200) << target;
      EXPECT_EQ(BodyOf(response), body);
   }
}

TEST_F(HttpServerTest, HeadAndOptionsNeedNoRoute)
{
   Start();
   Client client(_port);
   const std::string head = client.Send("HEAD /text HTTP/1.1\r\nHost: a\r\n\r\n").Receive(false);
   EXPECT_EQ(StatusOf(head), 200);
   EXPECT_NE(head.find("Content-Length: 4\r\n"), head.npos);
   // Hence the body of the first was not sent.
   const std::string options = client.Ask("OPTIONS /p/a/q/b HTTP/1.1\r\nHost: a\r\n\r\n");
   EXPECT_EQ(StatusOf(options), 204);
   EXPECT_NE(options.find("Allow: GET, HEAD, OPTIONS, PUT\r\n"), options.npos);
   EXPECT_EQ(options.find("Content-Length"), options.npos);
   EXPECT_EQ(BodyOf(client.Ask(kGet)), "text");
}

TEST_F(HttpServerTest, RequestsMayComeTogetherOrInPieces)
{
   Start();
   Client client(_port);
   const std::string post = "POST /echo HTTP/1.1\r\nHost: a\r\nContent-Type: text/x\r\n"
                            "Content-Length: 5\r\n\r\nfirst";
   client.Send(post + "\r\n" + kGet + kGet);
   const std::string echo = client.Receive();
   EXPECT_EQ(BodyOf(echo), "first");
   EXPECT_NE(echo.find("Content-Type: text/x\r\n"), echo.npos);
   EXPECT_EQ(BodyOf(client.Receive()), "text");
   EXPECT_EQ(BodyOf(client.Receive()), "text");
   Client other(_port);
   for (const size_t rest : {3, 5, 6, 7, 8, 40}) {
      client.Send(post.substr(0, post.size() - rest));
      EXPECT_EQ(BodyOf(other.Ask(kGet)), "text"); // the first piece was read before this one
      EXPECT_EQ(BodyOf(client.Ask(post.substr(post.size() - rest))), "first");
   }
   client.Send(
      "POST /echo HTTP/1.1\r\nHost: a\r\nExpect: 100-Continue\r\nContent-Length: 3\r\n\r\n");
   EXPECT_EQ(client.Receive(), "HTTP/1.1 100 Continue\r\n\r\n");
   EXPECT_EQ(BodyOf(client.Ask("abc")), "abc");
   // The connection ends when the client wants it to, or does not know of another one.
   client.Send("GET /text HTTP/1.1\r\nHost: a\r\nConnection: x, Close\r\n\r\n");
   EXPECT_EQ(BodyOf(client.ReceiveToEnd()), "text");
   EXPECT_EQ(BodyOf(Client(_port).Send("GET /text HTTP/1.0\r\n\r\n").ReceiveToEnd()), "text");
}

TEST_F(HttpServerTest, RefusesWhatItCannotServe)
{
   Start({.maxBodyBytes = 100});
   const std::string line = "GET /text HTTP/1.1\r\n";
   const std::string get = line + "Host: a\r\n";
   const std::string post = "POST /echo HTTP/1.1\r\nHost: a\r\n";
   std::string manyHeaders = get;
   for (int i = 0; i < 99; ++i) {
      manyHeaders += "A: b\r\n";
   }
   const std::tuple<const char*, int, bool, std::string> rows[] = {
      {"unknown path", 404, false, "GET /texts HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"empty parameter", 404, false, "GET /p//q/b HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"other method", 405, false, "POST /text HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"unknown method", 501, false, "FETCH /text HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"NUL in the path", 400, false, "GET /te%00xt HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"bad escape", 400, false, "GET /te%4 HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"bad escape in the query", 400, false, "GET /text?a=%zz HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"no version", 400, true, "GET /text\r\n\r\n"},
      {"other version", 505, true, "GET /text HTTP/2.0\r\n\r\n"},
      {"no path", 400, true, "GET text HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"blank in the path", 400, true, "GET /te xt HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"line feed alone", 400, true, "GET /text HTTP/1.1\n\n"},
      {"line feed alone later", 400, true, get + "A: b\nC: d\r\n\r\n"},
      {"no host", 400, true, line + "\r\n"},
      {"two hosts", 400, true, get + "Host: b\r\n\r\n"},
      {"continued header", 400, true, get + "A: b\r\n c\r\n\r\n"},
      {"blank before the colon", 400, true, get + "A : b\r\n\r\n"},
      {"NUL in a header", 400, true, get + "A: b" + std::string(1, '\0') + "\r\n\r\n"},
      {"body of 100", 200, false, post + "Content-Length: 100\r\n\r\n" + std::string(100, 'b')},
      {"body of 101", 413, true, post + "Content-Length: 101\r\n\r\n"},
      {"body sent all the same", 413, true,
       post + "Content-Length: 8000000\r\n\r\n" + std::string(8000000, 'b')},
      {"length of 2^64", 413, true, post + "Content-Length: 18446744073709551616\r\n\r\n"},
      {"negative length", 400, true, post + "Content-Length: -1\r\n\r\n"},
      {"two lengths", 400, true, post + "Content-Length: 1\r\nContent-Length: 1\r\n\r\nb"},
      {"chunks", 411, true, post + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
      {"compressed body", 415, true, post + "Content-Encoding: gzip\r\n\r\n"},
      {"other expectation", 417, true, post + "Expect: more\r\n\r\n"},
      {"URI of 8 KiB", 404, false,
       "GET /" + std::string(8191, 'a') + " HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"URI too long", 414, true,
       "GET /" + std::string(8192, 'a') + " HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"URI without end", 414, true, std::string(9000, 'a')},
      {"headers of 16 KiB", 200, false, get + "A: " + std::string(16371, 'a') + "\r\n\r\n"},
      {"headers without end", 431, true, get + "A: " + std::string(16384, 'a')},
      {"100 headers", 200, false, manyHeaders + "\r\n"},
      {"101 headers", 431, true, manyHeaders + "A: b\r\n\r\n"},
   };
   for (const auto& [name, status, closes, request] : rows) {
      SCOPED_TRACE(name);
      Client client(_port);
      const std::string response = client.Ask(request);
      EXPECT_EQ(StatusOf(response), status);
      if (status != 200) {
         EXPECT_TRUE(BodyOf(response).starts_with("E" + std::to_string(status) + " "));
      }
      EXPECT_EQ(response.find("Allow: GET, HEAD, OPTIONS\r\n") != response.npos, status == 405);
      EXPECT_EQ(response.find("Connection: close\r\n") != response.npos, closes);
      // Either the end, or a connection in step.
      EXPECT_EQ(closes ? client.ReceiveToEnd() : BodyOf(client.Ask(kGet)), closes ? "" : "text");
   }
}

TEST_F(HttpServerTest, FailingHandlerIsAnsweredAndLogged)
{
   Start({.workers = 1});
   Client client(_port);
   int failures = 0;
   for (const char* const what : {"runtime", "memory", "standard", "number"}) {
      EXPECT_EQ(
         StatusOf(client.Ask("GET /throw/" + std::string(what) + " HTTP/1.1\r\nHost: a\r\n\r\n")),
         500);
      EXPECT_EQ(_logger->CountLevel(Corvax::kLogError), ++failures);
   }
   EXPECT_EQ(_logger->Count("/throw/runtime failed: failure of runtime"), 1);
   EXPECT_EQ(BodyOf(client.Ask("GET /throw/conflict HTTP/1.1\r\nHost: a\r\n\r\n")), "E409 not now");
   EXPECT_EQ(_logger->CountLevel(Corvax::kLogError), failures);
}

TEST_F(HttpServerTest, CompressesForThoseWhoTakeIt)
{
   Start();
   const std::tuple<std::string, std::string, size_t, bool> rows[] = {
      {"application/json", "gzip", 1024, true},           {"application/json", "gzip", 1023, false},
      {"text/csv", "deflate, GZIP;q=0.5", 50000, true},   {"text/csv", "br, *", 50000, true},
      {"application/json", "gzip;q=0, *", 50000, false},  {"application/json", "br", 50000, false},
      {"application/octet-stream", "gzip", 50000, false},
   };
   Client client(_port);
   for (const auto& [type, accepted, size, compressed] : rows) {
      std::string body;
      while (body.size() < size) {
         body += std::to_string(body.size() * body.size());
      }
      body.resize(size);
      const std::string response = client.Ask(
         std::string("POST /echo HTTP/1.1\r\nHost: a\r\nContent-Type: ") + type +
         "\r\nAccept-Encoding: " + accepted +
         "\r\nRange: bytes=0-1\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n" + body);
      SCOPED_TRACE(type + " " + accepted);
      EXPECT_EQ(response.find("Content-Encoding: gzip\r\n") != response.npos, compressed);
      EXPECT_TRUE((compressed ? Inflate(BodyOf(response)) : BodyOf(response)) == body);
   }
}

TEST_F(HttpServerTest, SlowClientsAndHandlersHoldNobodyUp)
{
   Start({.requestTimeout = 60s, .workers = 2}); // longer than the client waits
   std::vector<Client> stalled;
   for (int i = 0; i < 8; ++i) {
      stalled.emplace_back(_port).Send("G");
      stalled.emplace_back(_port, 16384).Send(kBig);
   }
   for (size_t i = 1; i < stalled.size(); i += 2) {
      EXPECT_TRUE(stalled[i].WaitFor(POLLIN)); // its response is under way
   }
   Client waiting(_port);
   waiting.Send(kWait);
   _entered.wait(); // in one of the two workers
   EXPECT_EQ(BodyOf(Ask(kGet)), "text");
   _released.count_down();
   EXPECT_EQ(BodyOf(waiting.Receive()), "waited");
   EXPECT_EQ(BodyOf(stalled[0].Ask(std::string(kGet + 1))), "text");
   EXPECT_EQ(BodyOf(stalled[1].Receive()).size(), kBigBytes);
}

TEST_F(HttpServerTest, DeadlinesEndWhatStalls)
{
   Start({.requestTimeout = 300ms, .idleTimeout = 200ms});
   Client idle(_port);
   Client again(_port);
   EXPECT_EQ(BodyOf(again.Ask(kGet)), "text");
   Client headers(_port);
   headers.Send("GET /text HT");
   Client body(_port);
   body.Send("POST /echo HTTP/1.1\r\nHost: a\r\nContent-Length: 2\r\n\r\na");
   Client deaf(_port, 4096);
   deaf.Send(kBig);
   EXPECT_EQ(idle.ReceiveToEnd(), "");
   EXPECT_EQ(again.ReceiveToEnd(), "");
   EXPECT_EQ(StatusOf(headers.ReceiveToEnd()), 408);
   EXPECT_EQ(StatusOf(body.ReceiveToEnd()), 408);
   EXPECT_TRUE(deaf.WaitFor(0)); // a reset
   EXPECT_LT(BodyOf(deaf.Receive()).size(), kBigBytes);
}

TEST_F(HttpServerTest, PlacesAreFewAndKeptUntilTheHandlerEnds)
{
   Start({.workers = 1, .maxConnections = 1});
   {
      Client gone(_port);
      gone.Send(kWait);
      _entered.wait();
      gone.Reset();
   }
   const std::string refused = Client(_port).ReceiveToEnd();
   EXPECT_EQ(StatusOf(refused), 503);
   EXPECT_NE(refused.find("Connection: close\r\n"), refused.npos);
   _released.count_down();
   int status = 503; // until the answer has reached the sockets' thread
   for (int i = 0; i < 1000 && status == 503; ++i) {
      status = StatusOf(Ask(kGet));
   }
   EXPECT_EQ(status, 200);
}

TEST_F(HttpServerTest, StopLetsHandlersEndAndClosesTheRest)
{
   Start({.workers = 1});
   Client idle(_port);
   Client half(_port);
   half.Send("GET");
   Client deaf(_port, 4096);
   EXPECT_TRUE(deaf.Send(kBig).WaitFor(POLLIN));
   Client running(_port);
   running.Send(kWait);
   _entered.wait();
   std::future<void> stop = std::async(std::launch::async, [this] { _server->Stop(); });
   EXPECT_EQ(idle.ReceiveToEnd(), "");
   EXPECT_EQ(half.ReceiveToEnd(), "");
   EXPECT_EQ(stop.wait_for(0s), std::future_status::timeout);
   _released.count_down();
   EXPECT_EQ(BodyOf(running.ReceiveToEnd()), "waited");
   EXPECT_EQ(stop.wait_for(5s), std::future_status::ready);
}

TEST_F(HttpServerTest, SaysWhyItCannotListen)
{
   Start();
   const std::string taken = "127.0.0.1:" + std::to_string(_port);
   for (const std::string& address :
        {taken, std::string("127.0.0.1"), std::string("::1:80"), std::string("localhost:65536"),
         std::string(":80"), std::string("192.0.2.1:0"), std::string("a:b")}) {
      Http::Server other({}, nullptr, _logger.Get());
      EXPECT_TRUE(MessageOf([&] {
                     other.Listen(address);
                  }).starts_with("Cannot listen on " + address + ": "));
   }
   Http::Server named({}, nullptr, _logger.Get());
   EXPECT_GT(named.Listen("localhost:0"), 0);
}

} // namespace
