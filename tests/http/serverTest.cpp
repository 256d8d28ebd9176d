#include "tests/fakes/descriptorLimit.h"
#include "tests/fakes/messageOf.h"
#include "tests/http/serverFixture.h"

#include <zlib.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <future>

namespace {

std::atomic<bool> acceptFails = false;
std::atomic<int> acceptFailures = 0;

} // namespace

/// In place of the system's: fails as it does without free descriptors.
extern "C" int accept4(int socket, sockaddr* address, socklen_t* size, int flags)
{
   if (acceptFails) {
      ++acceptFailures;
      errno = EMFILE;
      return -1;
   }
   return static_cast<int>(::syscall(SYS_accept4, socket, address, size, flags));
}

namespace {

using namespace std::chrono_literals;

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

TEST_F(HttpServerTest, HandlersGetTheDecodedRequest)
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
   // This one would be garbled if the HEAD had been answered with a body.
   const std::string options = client.Ask("OPTIONS /p/a/q/b HTTP/1.1\r\nHost: a\r\n\r\n");
   EXPECT_EQ(StatusOf(options), 204);
   EXPECT_NE(options.find("Allow: GET, HEAD, OPTIONS, PUT\r\n"), options.npos);
   EXPECT_EQ(options.find("Content-Length"), options.npos);
   EXPECT_EQ(BodyOf(client.Ask(kGet)), "text");
}

TEST_F(HttpServerTest, RequestsMayArriveTogetherOrInParts)
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
   for (const size_t rest : {3U, 5U, 6U, 7U, 8U, 40U}) {
      client.Send(post.substr(0, post.size() - rest));
      EXPECT_EQ(BodyOf(other.Ask(kGet)), "text"); // the first part was read before this one
      EXPECT_EQ(BodyOf(client.Ask(post.substr(post.size() - rest))), "first");
   }
   client.Send(
      "POST /echo HTTP/1.1\r\nHost: a\r\nExpect: 100-Continue\r\nContent-Length: 3\r\n\r\n");
   EXPECT_EQ(client.Receive(), "HTTP/1.1 100 Continue\r\n\r\n");
   EXPECT_EQ(BodyOf(client.Ask("abc")), "abc");
   // The connection ends if the client says so, or does not know that it may stay.
   client.Send("GET /text HTTP/1.1\r\nHost: a\r\nConnection: x, Close\r\n\r\n");
   EXPECT_EQ(BodyOf(client.ReceiveToEnd()), "text");
   EXPECT_EQ(BodyOf(Client(_port).Send("GET /text HTTP/1.0\r\n\r\n").ReceiveToEnd()), "text");
}

TEST_F(HttpServerTest, FailureOfAHandlerIsAnsweredAndLogged)
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

TEST_F(HttpServerTest, CompressesForClientsThatAcceptIt)
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
      SCOPED_TRACE(accepted);
      const std::string response = client.Ask(
         Corvax::Format("POST /echo HTTP/1.1\r\nHost: a\r\nContent-Type: %1\r\n"
                        "Accept-Encoding: %2\r\nRange: bytes=0-1\r\nContent-Length: %3\r\n\r\n%4",
                        type, accepted, size, body));
      EXPECT_EQ(response.find("Content-Encoding: gzip\r\n") != response.npos, compressed);
      EXPECT_TRUE((compressed ? Inflate(BodyOf(response)) : BodyOf(response)) == body);
   }
}

TEST_F(HttpServerTest, SlowClientsAndHandlersDelayNoOtherClient)
{
   Start({.requestTimeout = 10 * kPatience, .workers = 2});
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
   _entered.wait(); // one of the two workers is taken
   EXPECT_EQ(BodyOf(Ask(kGet)), "text");
   _released.count_down();
   EXPECT_EQ(BodyOf(waiting.Receive()), "waited");
   EXPECT_EQ(BodyOf(stalled[0].Ask(std::string(kGet + 1))), "text");
   EXPECT_EQ(BodyOf(stalled[1].Receive()).size(), kBigBytes);
}

TEST_F(HttpServerTest, RequestDeadlineEndsWhatStalls)
{
   Start({.requestTimeout = 300ms, .idleTimeout = 10 * kPatience});
   Client headers(_port);
   headers.Send("GET /text HT");
   Client body(_port);
   body.Send("POST /echo HTTP/1.1\r\nHost: a\r\nContent-Length: 2\r\n\r\na");
   Client deaf(_port, 4096);
   deaf.Send(kBig);
   EXPECT_EQ(StatusOf(headers.ReceiveToEnd()), 408);
   EXPECT_EQ(StatusOf(body.ReceiveToEnd()), 408);
   EXPECT_TRUE(deaf.WaitFor(0)); // a reset
   EXPECT_LT(BodyOf(deaf.Receive()).size(), kBigBytes);
}

TEST_F(HttpServerTest, IdleConnectionsAreClosed)
{
   Start({.requestTimeout = 10 * kPatience, .idleTimeout = 200ms});
   EXPECT_EQ(Client(_port).ReceiveToEnd(), "");
   std::string response;
   while (response.empty()) { // on a busy machine a request may come too late
      response = Client(_port).Send(kGet).ReceiveToEnd();
   }
   EXPECT_EQ(BodyOf(response), "text");
}

TEST_F(HttpServerTest, LimitCountsAConnectionUntilItsHandlerEnds)
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
   const auto end = std::chrono::steady_clock::now() + kPatience;
   while (status == 503 && std::chrono::steady_clock::now() < end) {
      status = StatusOf(Ask(kGet));
   }
   EXPECT_EQ(status, 200);
}

TEST_F(HttpServerTest, ConnectionsLeaveDescriptorsToTheProcess)
{
   for (const auto& [limit, most] : {std::pair{104, 15}, {64, 4}}) {
      {
         const DescriptorLimit low(static_cast<rlim_t>(limit));
         Start();
      }
      std::vector<Client> clients;
      for (int i = 0; i < most; ++i) {
         EXPECT_EQ(BodyOf(clients.emplace_back(_port).Ask(kGet)), "text");
      }
      EXPECT_EQ(StatusOf(Client(_port).ReceiveToEnd()), 503);
      EXPECT_EQ(_logger->Count(Corvax::Format("At most %1 HTTP connections instead of 256", most)),
                1);
   }
}

TEST_F(HttpServerTest, LackOfDescriptorsDelaysNewConnectionsAlone)
{
   Start();
   Client open(_port);
   EXPECT_EQ(BodyOf(open.Ask(kGet)), "text");
   const auto start = std::chrono::steady_clock::now();
   acceptFails = true;
   Client late(_port);
   late.Send(kGet);
   // Each request wakes the thread of the sockets, which must not try to accept every time.
   for (int i = 0; i < 100 || acceptFailures == 0; ++i) {
      ASSERT_EQ(BodyOf(open.Ask(kGet)), "text");
   }
   const auto passed = std::chrono::steady_clock::now() - start;
   EXPECT_LE(acceptFailures, 1 + passed / 1s);
   acceptFails = false;
   EXPECT_EQ(BodyOf(late.Receive()), "text");
   EXPECT_EQ(_logger->Count("cannot be accepted: Too many open files"), 1);
   EXPECT_EQ(_logger->Count("accepted again"), 1);
}

TEST_F(HttpServerTest, StopWaitsForHandlersAndClosesTheRest)
{
   Start({.requestTimeout = 10 * kPatience, .workers = 1});
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
   EXPECT_EQ(stop.wait_for(kPatience), std::future_status::ready);
}

TEST_F(HttpServerTest, FailureToListenNamesTheAddress)
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
