#pragma once

#include "corvax/descriptor.h"
#include "corvax/format.h"
#include "http/server.h"
#include "tests/fakes/captureLogger.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <latch>

constexpr const char* kGet = "GET /text HTTP/1.1\r\nHost: a\r\n\r\n";
constexpr const char* kBig = "GET /big HTTP/1.1\r\nHost: a\r\n\r\n";
constexpr const char* kWait = "GET /wait HTTP/1.1\r\nHost: a\r\n\r\n";
constexpr size_t kBigBytes = size_t{4} << 20;

constexpr std::chrono::seconds kPatience{60}; // ends waits that would never end

/// A client with a socket of its own.
class Client {
public:
   explicit Client(int port, int receiveBufferBytes = 0)
      : _socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
   {
      if (receiveBufferBytes != 0) {
         ::setsockopt(Get(), SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof(int));
      }
      const int one = 1; // every Send goes out at once
      ::setsockopt(Get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      const timeval longest{kPatience.count(), 0};
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

   /// One response with its body; the part that came, if the server closes before its end.
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

   /// Everything until the server closes; "TIMEOUT" at the end if it does not.
   std::string ReceiveToEnd()
   {
      while (More()) {
      }
      return std::exchange(_input, "") + (_timedOut ? "TIMEOUT" : "");
   }

   /// Closes with a reset.
   void Reset()
   {
      const linger reset{1, 0};
      ::setsockopt(Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      _socket = Corvax::Descriptor();
   }

   /// Waits for POLLIN, or with 0 for a reset, without reading.
   bool WaitFor(short events)
   {
      pollfd descriptor{Get(), events, 0};
      return ::poll(&descriptor, 1, std::chrono::milliseconds(kPatience).count()) == 1;
   }

private:
   int Get() const { return _socket.Get(); }

   /// Of the first response in the input; more than any input has if that is not known yet.
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

   Corvax::Descriptor _socket;
   std::string _input;
   bool _timedOut = false;
};

inline int StatusOf(const std::string& response)
{
   return response.starts_with("HTTP/1.1 ") ? std::stoi(response.substr(9)) : 0;
}

inline std::string BodyOf(const std::string& response)
{
   const size_t end = response.find("\r\n\r\n");
   return end == response.npos ? "" : response.substr(end + 4);
}

/// A server with routes for the tests, and clients for it.
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
         response.body += Corvax::Format(" %1=%2", name, value);
      }
      response.body += " " + request.accept;
   }

   std::string Ask(const std::string& text) { return Client(_port).Ask(text); }

   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   std::latch _entered{1};
   std::latch _released{1};
   std::unique_ptr<Http::Server> _server; // destroyed before the members that its handlers use
   int _port = 0;
};
