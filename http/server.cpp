#include "http/server.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "http/responseWriter.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

namespace Http {

namespace {

using Corvax::Descriptor;
using AddressList = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

[[noreturn]] void FailToListen(const std::string& address, const std::string& reason)
{
   throw Corvax::Exception(Corvax::Format("Cannot listen on %1: %2", address, reason));
}

/// "host:port", or "[host]:port" for a host with colons.
std::pair<std::string, std::string> SplitAddress(const std::string& address)
{
   const size_t colon = address.rfind(':');
   std::string host = address.substr(0, colon);
   std::string port = colon == address.npos ? "" : address.substr(colon + 1);
   const bool bracketed = host.starts_with('[') && host.ends_with(']');
   if (bracketed) {
      host = host.substr(1, host.size() - 2);
   }
   const bool isNumber = port.find_first_not_of("0123456789") == port.npos;
   if (host.empty() || (!bracketed && host.find(':') != host.npos) || port.empty() ||
       port.size() > 5 || !isNumber || std::stoi(port) > 65535) {
      FailToListen(address, "it is not of the form host:port or [host]:port");
   }
   return {std::move(host), std::move(port)};
}

AddressList ResolveAddress(const std::string& address)
{
   const auto [host, port] = SplitAddress(address);
   addrinfo hints{};
   hints.ai_family = AF_UNSPEC;
   hints.ai_socktype = SOCK_STREAM;
   hints.ai_flags = AI_NUMERICSERV;
   addrinfo* found = nullptr;
   if (const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
      FailToListen(address, ::gai_strerror(error));
   }
   return AddressList(found, &::freeaddrinfo);
}

/// No descriptor, with errno set, if listening on the address fails.
Descriptor OpenListener(const addrinfo& address)
{
   Descriptor listener(::socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   const int one = 1;
   if (listener && ::setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
       ::bind(listener.Get(), address.ai_addr, address.ai_addrlen) == 0 &&
       ::listen(listener.Get(), SOMAXCONN) == 0) {
      return listener;
   }
   const int error = errno; // closing may change it
   listener = Descriptor();
   errno = error;
   return listener;
}

Descriptor OpenFirstListener(const std::string& address)
{
   const AddressList addresses = ResolveAddress(address);
   for (const addrinfo* next = addresses.get(); next; next = next->ai_next) {
      if (Descriptor listener = OpenListener(*next)) {
         return listener;
      }
   }
   FailToListen(address, std::generic_category().message(errno));
}

int GetPort(const Descriptor& listener)
{
   sockaddr_storage address{};
   socklen_t size = sizeof address;
   char port[8] = "";
   if (::getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
       ::getnameinfo(reinterpret_cast<sockaddr*>(&address), size, nullptr, 0, port, sizeof port,
                     NI_NUMERICSERV) != 0) {
      throw Corvax::PlatformException("find the port of the HTTP server", errno);
   }
   return std::stoi(port);
}

bool IsKnownMethod(std::string_view method)
{
   constexpr std::array<std::string_view, 7> kMethods = {"GET",    "HEAD",  "POST",   "PUT",
                                                         "DELETE", "PATCH", "OPTIONS"};
   return std::ranges::find(kMethods, method) != kMethods.end();
}

/// The message of the exception being handled.
std::string GetExceptionText()
{
   try {
      throw;
   } catch (const Corvax::Exception& e) {
      return e.GetMessage();
   } catch (const std::exception& e) {
      return e.what();
   } catch (...) {
      return "unknown exception";
   }
}

} // namespace

Server::Server(Limits limits, ErrorFormatter formatError, Corvax::Logger* logger)
   : _limits(limits), _formatError(std::move(formatError)), _logger(logger)
{
}

Server::~Server()
{
   Stop();
}

void Server::Route(const std::string& method, const std::string& pattern, Handler handler)
{
   Corvax::Assert(!_connections, "routes are added before Listen");
   _routes.Add(method, pattern, std::move(handler));
}

int Server::Listen(const std::string& address)
{
   Corvax::Assert(!_connections, "a server listens once");
   Descriptor listener = OpenFirstListener(address);
   const int port = GetPort(listener);
   auto takeRequest = [this](ReceivedRequest request) {
      {
         const std::lock_guard guard(_mutex);
         _waiting.push_back(std::move(request));
      }
      _wake.notify_one();
   };
   auto writeRefusal = [this, writer = std::make_shared<ResponseWriter>()](const Refusal& refusal) {
      return writer->Write(MakeRefusal(refusal), {.close = true});
   };
   _connections = std::make_unique<Connections>(
      std::move(listener), _limits, std::move(takeRequest), std::move(writeRefusal), _logger.Get());
   _ioThread = Corvax::StartThread("http-io", [this](const std::stop_token&) {
      try {
         _connections->Run();
      } catch (...) {
         _logger->Log(Corvax::kLogError, "The HTTP server has stopped: %1", GetExceptionText());
      }
   });
   for (int i = 0; i < _limits.workers; ++i) {
      _workers.push_back(Corvax::StartThread(Corvax::Format("http-%1", i),
                                             [this](const std::stop_token&) { Work(); }));
   }
   return port;
}

void Server::Stop()
{
   if (!_connections) {
      return;
   }
   RefuseRequests();
   _connections->StopAccepting();
   {
      const std::lock_guard guard(_mutex);
      _stopping = true;
   }
   _wake.notify_all();
   _workers.clear();    // waits for them
   _connections->End(); // after the workers, so that their last responses are sent
   if (_ioThread.joinable()) {
      _ioThread.join();
   }
}

std::optional<Connections::ReceivedRequest> Server::TakeNext()
{
   std::unique_lock lock(_mutex);
   _wake.wait(lock, [this] { return _stopping || !_waiting.empty(); });
   if (_waiting.empty()) {
      return std::nullopt;
   }
   std::optional<ReceivedRequest> request(std::move(_waiting.front()));
   _waiting.pop_front();
   return request;
}

void Server::Work()
{
   ResponseWriter writer;
   while (std::optional<ReceivedRequest> request = TakeNext()) {
      Serve(*request, writer);
   }
}

void Server::Serve(ReceivedRequest& request, ResponseWriter& writer)
{
   std::string bytes;
   bool close = true;
   try {
      Response response = Respond(request);
      close = request.head.close || _refusing;
      bytes = writer.Write(std::move(response), {.withoutBody = request.head.method == "HEAD",
                                                 .gzip = request.head.acceptsGzip,
                                                 .close = close});
   } catch (...) {
      bytes.clear(); // no memory for a response: the connection is closed without it
   }
   _connections->Answer(request.connection, std::move(bytes), close);
}

Response Server::Respond(ReceivedRequest& request)
{
   try {
      if (_refusing) {
         throw Refusal(503, "The server is stopping");
      }
      Response response;
      Dispatch(request, response);
      return response;
   } catch (const Refusal& refusal) {
      return MakeRefusal(refusal);
   } catch (...) {
      LogFailure(request);
   }
   return MakeRefusal(Refusal(500, "The request failed; the server's log says why"));
}

void Server::Dispatch(ReceivedRequest& request, Response& response)
{
   const RequestHead& head = request.head;
   if (!IsKnownMethod(head.method)) {
      throw Refusal(501, Corvax::Format("The method %1 is not supported", head.method));
   }
   Routes::Match match = _routes.Find(head.method, DecodePath(head.path));
   if (match.handler) {
      const Request decoded{.method = head.method == "HEAD" ? "GET" : head.method,
                            .path = DecodePercent(head.path, false),
                            .query = DecodeQuery(head.query),
                            .pathParameters = std::move(match.parameters),
                            .accept = head.accept,
                            .contentType = head.contentType,
                            .body = std::move(request.body)};
      (*match.handler)(decoded, response);
   } else if (match.allow.empty()) {
      throw Refusal(404, "There is no such path");
   } else if (head.method == "OPTIONS") {
      response.status = 204;
      response.headers.emplace_back("Allow", match.allow);
   } else {
      throw Refusal(405, Corvax::Format("The path allows only %1", match.allow),
                    {{"Allow", match.allow}});
   }
}

Response Server::MakeRefusal(const Refusal& refusal)
{
   Response response;
   try {
      _formatError(refusal.GetStatus(), refusal.GetMessage(), response);
   } catch (...) {
      _logger->Log(Corvax::kLogError, "Cannot format the body of an HTTP error: %1",
                   GetExceptionText());
      response = Response();
   }
   response.status = refusal.GetStatus();
   response.headers.insert(response.headers.end(), refusal.GetHeaders().begin(),
                           refusal.GetHeaders().end());
   return response;
}

void Server::LogFailure(const ReceivedRequest& request)
{
   _logger->Log(Corvax::kLogError, "%1 %2 failed: %3", request.head.method, request.head.path,
                GetExceptionText());
}

} // namespace Http
