#include "bench/keepAliveClient.h"

#include "corvax/exception.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace Bench {

namespace {

[[noreturn]] void Fail(const std::string& reason)
{
   throw Corvax::Exception("Cannot measure the management API: " + reason);
}

} // namespace

KeepAliveClient::KeepAliveClient(int port)
   : _socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
   sockaddr_in address = {};
   address.sin_family = AF_INET;
   address.sin_port = htons(static_cast<uint16_t>(port));
   address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   const int on = 1;
   ::setsockopt(_socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
   if (::connect(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      Fail("no connection to port " + std::to_string(port));
   }
}

std::string KeepAliveClient::FormatRequest(const std::string& target)
{
   return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
}

const std::string& KeepAliveClient::Send(const std::string& request)
{
   if (::send(_socket.Get(), request.data(), request.size(), MSG_NOSIGNAL) !=
       static_cast<ssize_t>(request.size())) {
      Fail("a request cannot be sent");
   }
   const std::string kLength = "Content-Length: ";
   _received.clear();
   size_t headerEnd;
   while ((headerEnd = _received.find("\r\n\r\n")) == _received.npos) {
      Receive();
   }
   const size_t length = _received.find(kLength);
   if (!_received.starts_with("HTTP/1.1 200") || length > headerEnd) {
      Fail("it answered " + _received);
   }
   const size_t bodyBegin = headerEnd + 4;
   const size_t end = bodyBegin + std::stoul(_received.substr(length + kLength.size(), 20));
   while (_received.size() < end) {
      Receive();
   }
   return _received.erase(0, bodyBegin);
}

void KeepAliveClient::Receive()
{
   char buffer[16384];
   const ssize_t size = ::recv(_socket.Get(), buffer, sizeof buffer, 0);
   if (size <= 0) {
      Fail("it closed the connection");
   }
   _received.append(buffer, static_cast<size_t>(size));
}

} // namespace Bench
