#include "http/connections.h"

#include "corvax/format.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace Http {

namespace {

using Corvax::Descriptor;

// Keys in epoll; the connections have those above.
constexpr uint64_t kListenerKey = 0;
constexpr uint64_t kWakeUpKey = 1;

// Read per event, so that one fast client cannot starve the others.
constexpr size_t kReadBytes = size_t{64} << 10;
// Connections beyond the limit that get a 503; further ones are closed at once.
constexpr size_t kMaxRefusedConnections = 32;
// Served and refused however few descriptors there are.
constexpr size_t kMinConnections = 4;
constexpr std::chrono::milliseconds kDrainTimeout{2000};
constexpr std::chrono::milliseconds kAcceptPause{1000};
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

/// False, with errno set, if epoll fails.
bool Control(int epoll, int operation, int descriptor, uint64_t key, uint32_t events)
{
   epoll_event event{};
   event.events = events;
   event.data.u64 = key;
   return ::epoll_ctl(epoll, operation, descriptor, &event) == 0;
}

/// Clients must leave the rest of the process the descriptors that it needs.
size_t GetMaxRefused()
{
   return std::clamp(Corvax::GetDescriptorShares().connections / 4, kMinConnections,
                     kMaxRefusedConnections);
}

size_t GetMaxServed(int configured)
{
   const size_t share = Corvax::GetDescriptorShares().connections;
   const size_t left = std::max(share, kMinConnections + GetMaxRefused()) - GetMaxRefused();
   return std::min(static_cast<size_t>(configured), left);
}

bool WouldBlock(int errorNumber)
{
   return errorNumber == EAGAIN || errorNumber == EWOULDBLOCK || errorNumber == EINTR;
}

/// Limited to a year, so that the sum cannot overflow.
std::chrono::steady_clock::time_point After(std::chrono::milliseconds time)
{
   constexpr std::chrono::hours kLongest{24 * 365};
   return std::chrono::steady_clock::now() + std::min<std::chrono::milliseconds>(time, kLongest);
}

} // namespace

Connections::Connections(Descriptor listener, const Limits& limits, RequestTaker takeRequest,
                         RefusalWriter writeRefusal, Corvax::Logger* logger)
   : _limits(limits), _takeRequest(std::move(takeRequest)), _writeRefusal(std::move(writeRefusal)),
     _logger(logger), _maxServed(GetMaxServed(limits.maxConnections)), _maxRefused(GetMaxRefused()),
     _listener(std::move(listener)), _epoll(::epoll_create1(EPOLL_CLOEXEC)),
     _wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), _lastId(kWakeUpKey)
{
   if (!_epoll || !_wakeUp ||
       !Control(_epoll.Get(), EPOLL_CTL_ADD, _listener.Get(), kListenerKey, EPOLLIN) ||
       !Control(_epoll.Get(), EPOLL_CTL_ADD, _wakeUp.Get(), kWakeUpKey, EPOLLIN)) {
      throw Corvax::PlatformException("wait for HTTP connections", errno);
   }
   // A connection has at most one answer, so Answer never allocates.
   _answers.reserve(_maxServed + _maxRefused);
   _answersTaken.reserve(_maxServed + _maxRefused);
   if (_maxServed < static_cast<size_t>(_limits.maxConnections)) {
      _logger->Log(Corvax::kLogNotice,
                   "At most %1 HTTP connections instead of %2: the process may have %3 descriptors",
                   _maxServed, _limits.maxConnections, Corvax::GetDescriptorLimit());
   }
}

Connections::~Connections() = default;

void Connections::Run()
{
   while (!_ending) {
      std::array<epoll_event, 64> events;
      const int count = ::epoll_wait(_epoll.Get(), events.data(), events.size(), GetWaitMs());
      if (count < 0 && errno != EINTR) {
         throw Corvax::PlatformException("wait for HTTP connections", errno);
      }
      for (int i = 0; i < count; ++i) {
         const epoll_event& event = events[static_cast<size_t>(i)];
         HandleEvent(event.data.u64, event.events);
      }
      HandleDeadlines();
   }
   TakeAnswers();
   _connections.clear();
   _listener = Descriptor();
}

void Connections::Answer(uint64_t connection, std::string response, bool close) noexcept
{
   {
      const std::lock_guard guard(_mutex);
      _answers.push_back({connection, std::move(response), close});
   }
   ::eventfd_write(_wakeUp.Get(), 1); // it fails only after 2^64 writes without a read
}

void Connections::StopAccepting()
{
   _stopping = true;
   ::eventfd_write(_wakeUp.Get(), 1);
}

void Connections::End()
{
   _ending = true;
   StopAccepting();
}

void Connections::HandleEvent(uint64_t id, uint32_t events)
{
   if (id == kListenerKey) {
      Accept();
   } else if (id == kWakeUpKey) {
      HandleWakeUp();
   } else if (const auto found = _connections.find(id); found != _connections.end()) {
      Guard(found->second, [&](Connection& connection) { React(connection, events); });
   }
}

void Connections::HandleWakeUp()
{
   eventfd_t count = 0;
   ::eventfd_read(_wakeUp.Get(), &count);
   if (_stopping && _listener) {
      _listener = Descriptor();
      _acceptAgain = Clock::time_point::max();
      std::erase_if(_connections,
                    [](const auto& entry) { return entry.second.state == State::Reading; });
   }
   TakeAnswers();
}

void Connections::TakeAnswers()
{
   {
      const std::lock_guard guard(_mutex);
      _answersTaken.swap(_answers);
   }
   for (AnswerItem& answer : _answersTaken) {
      const auto found = _connections.find(answer.connection);
      if (found == _connections.end()) {
         continue;
      }
      Guard(found->second, [&](Connection& connection) {
         connection.owed = false;
         if (connection.state != State::Closed) {
            StartWriting(connection, std::move(answer.response), answer.close);
         }
      });
   }
   _answersTaken.clear();
}

int Connections::GetWaitMs() const
{
   Clock::time_point first = _acceptAgain;
   for (const auto& [id, connection] : _connections) {
      first = std::min(first, connection.deadline);
   }
   if (first == Clock::time_point::max()) {
      return -1;
   }
   const auto left = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now());
   return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
}

void Connections::HandleDeadlines()
{
   const Clock::time_point now = Clock::now();
   if (_acceptAgain <= now) {
      ResumeAccepting();
   }
   for (auto next = _connections.begin(); next != _connections.end();) {
      Connection& connection = (next++)->second; // Guard may erase it
      if (connection.deadline <= now) {
         Guard(connection, [this](Connection& late) { HandleDeadline(late); });
      }
   }
}

/// Runs one step of a connection, and erases the connection if the step has closed it.
template <class Step>
void Connections::Guard(Connection& connection, Step step)
{
   try {
      step(connection);
   } catch (...) { // probably no memory; bad requests do not get here
      Close(connection);
   }
   if (connection.state == State::Closed && !connection.owed) {
      _connections.erase(connection.id);
   }
}

void Connections::Accept()
{
   Descriptor socket(::accept4(_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
   if (!socket) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
         PauseAccepting(errno);
      }
      return; // for other errors the client has gone already
   }
   if (_acceptFails) {
      _acceptFails = false;
      _logger->Log(Corvax::kLogNotice, "HTTP connections are accepted again");
   }
   const bool tooMany = _connections.size() >= _maxServed;
   if (_connections.size() >= _maxServed + _maxRefused) {
      return;
   }
   const int one = 1;
   // A failure is ignored: it costs delay alone.
   ::setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
   if (!Control(_epoll.Get(), EPOLL_CTL_ADD, socket.Get(), _lastId + 1, EPOLLIN)) {
      return;
   }
   const uint64_t id = ++_lastId;
   Connection& connection = _connections[id];
   connection.id = id;
   connection.socket = std::move(socket);
   connection.events = EPOLLIN;
   connection.deadline = After(_limits.idleTimeout);
   if (tooMany) {
      Guard(connection, [this](Connection& refused) {
         Refuse(refused, Refusal(503, "There are too many connections"));
      });
   }
}

/// Otherwise a client that cannot be accepted would wake the thread over and over.
void Connections::PauseAccepting(int errorNumber)
{
   Control(_epoll.Get(), EPOLL_CTL_MOD, _listener.Get(), kListenerKey, 0);
   _acceptAgain = After(kAcceptPause);
   if (!_acceptFails) {
      _acceptFails = true;
      _logger->Log(Corvax::kLogWarning, "HTTP connections cannot be accepted: %1",
                   std::generic_category().message(errorNumber));
   }
}

void Connections::ResumeAccepting()
{
   _acceptAgain = Clock::time_point::max();
   Control(_epoll.Get(), EPOLL_CTL_MOD, _listener.Get(), kListenerKey, EPOLLIN);
}

void Connections::React(Connection& connection, uint32_t events)
{
   switch (connection.state) {
   case State::Reading:
   case State::Draining:
      Read(connection);
      break;
   case State::Writing:
      Write(connection);
      break;
   case State::Working:
      // The next request stays in the socket. A broken connection is reported whatever the events
      // are set to, and again and again, so it has to be closed.
      if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
         Close(connection);
      } else {
         SetEvents(connection, 0);
      }
      break;
   case State::Closed:
      break;
   }
}

void Connections::Read(Connection& connection)
{
   std::array<char, kReadBytes> buffer;
   const ssize_t got = ::recv(connection.socket.Get(), buffer.data(), buffer.size(), 0);
   if (got < 0 && WouldBlock(errno)) {
      return;
   }
   if (got <= 0) { // the client has closed its side, or is gone
      Close(connection);
      return;
   }
   if (connection.state == State::Reading) {
      connection.input.append(buffer.data(), static_cast<size_t>(got));
      TakeRequest(connection);
   }
}

/// Hands the next request over if it is complete.
void Connections::TakeRequest(Connection& connection)
{
   try {
      if ((connection.head || TakeHead(connection)) &&
          connection.input.size() >= connection.head->contentLength) {
         HandOver(connection);
      }
   } catch (const Refusal& refusal) {
      Refuse(connection, refusal); // the start of the next request is unknown
   }
}

bool Connections::TakeHead(Connection& connection)
{
   std::string& input = connection.input;
   if (!connection.requestBegun) {
      // Empty lines before a request are skipped.
      input.erase(0, std::min(input.find_first_not_of("\r\n"), input.size()));
      if (input.empty()) {
         return false;
      }
      connection.requestBegun = true;
      connection.deadline = After(_limits.requestTimeout);
   }
   const auto end = FindHeadEnd(input, connection.inputSearched);
   connection.inputSearched = input.size();
   if (!end) {
      return false;
   }
   connection.head = ParseHead(std::string_view(input).substr(0, *end));
   input.erase(0, *end);
   if (connection.head->contentLength > _limits.maxBodyBytes) {
      throw Refusal(413, Corvax::Format("The body is longer than %1 bytes", _limits.maxBodyBytes));
   }
   if (connection.head->expectsContinue && input.size() < connection.head->contentLength) {
      const ssize_t sent =
         ::send(connection.socket.Get(), kContinue.data(), kContinue.size(), MSG_NOSIGNAL);
      if (sent != static_cast<ssize_t>(kContinue.size())) {
         Close(connection); // these few bytes fit unless the client does not read its responses
         return false;
      }
   }
   return true;
}

void Connections::HandOver(Connection& connection)
{
   const auto bodySize = static_cast<size_t>(connection.head->contentLength);
   ReceivedRequest request{connection.id, std::move(*connection.head),
                           connection.input.substr(0, bodySize)};
   connection.input.erase(0, bodySize);
   if (connection.input.empty() && connection.input.capacity() > kReadBytes) {
      connection.input.shrink_to_fit();
   }
   connection.inputSearched = 0;
   connection.head.reset();
   connection.requestBegun = false;
   connection.state = State::Working;
   connection.deadline = Clock::time_point::max();
   connection.owed = true;
   try {
      _takeRequest(std::move(request));
   } catch (...) {
      connection.owed = false;
      throw;
   }
}

void Connections::Refuse(Connection& connection, const Refusal& refusal)
{
   connection.input = std::string();
   StartWriting(connection, _writeRefusal(refusal), true);
}

void Connections::StartWriting(Connection& connection, std::string output, bool close)
{
   if (output.empty()) {
      Close(connection);
      return;
   }
   connection.state = State::Writing;
   connection.deadline = After(_limits.requestTimeout);
   connection.output = std::move(output);
   connection.outputSent = 0;
   connection.closeAfterOutput = close;
   Write(connection);
}

void Connections::Write(Connection& connection)
{
   const std::string_view left = std::string_view(connection.output).substr(connection.outputSent);
   const ssize_t sent = ::send(connection.socket.Get(), left.data(), left.size(), MSG_NOSIGNAL);
   if (sent < 0 && !WouldBlock(errno)) {
      Close(connection);
      return;
   }
   connection.outputSent += static_cast<size_t>(std::max<ssize_t>(sent, 0));
   if (connection.outputSent < connection.output.size()) {
      SetEvents(connection, EPOLLOUT);
   } else {
      FinishWriting(connection);
   }
}

void Connections::FinishWriting(Connection& connection)
{
   connection.output = std::string();
   SetEvents(connection, EPOLLIN);
   if (connection.closeAfterOutput || _stopping) {
      // Keep reading for a while: closing with unread bytes would reset the connection, and the
      // client might lose the response.
      ::shutdown(connection.socket.Get(), SHUT_WR);
      connection.state = State::Draining;
      connection.deadline = After(std::min(_limits.requestTimeout, kDrainTimeout));
      return;
   }
   connection.state = State::Reading;
   connection.deadline = After(_limits.idleTimeout);
   TakeRequest(connection); // it may have arrived together with the last one
}

void Connections::HandleDeadline(Connection& connection)
{
   if (connection.state == State::Reading && connection.requestBegun) {
      Refuse(connection, Refusal(408, "The request was not complete in time"));
      return;
   }
   if (connection.state == State::Writing) {
      // Otherwise the system would keep trying to send the rest.
      const linger reset{1, 0};
      ::setsockopt(connection.socket.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
   }
   Close(connection);
}

void Connections::SetEvents(Connection& connection, uint32_t events)
{
   if (connection.events == events) {
      return;
   }
   if (!Control(_epoll.Get(), EPOLL_CTL_MOD, connection.socket.Get(), connection.id, events)) {
      throw Corvax::PlatformException("wait for an HTTP connection", errno);
   }
   connection.events = events;
}

void Connections::Close(Connection& connection)
{
   connection.socket = Descriptor(); // which removes it from epoll, too
   connection.state = State::Closed;
   connection.deadline = Clock::time_point::max();
   connection.input = std::string();
   connection.output = std::string();
}

} // namespace Http
