#pragma once

#include "corvax/logger.h"
#include "http/message.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Http {

/// Owns a file descriptor; negative: none.
class Descriptor {
public:
   explicit Descriptor(int number = -1) noexcept : _number(number) {}
   Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
   Descriptor& operator=(Descriptor other) noexcept
   {
      std::swap(_number, other._number);
      return *this;
   }
   ~Descriptor();

   int Get() const noexcept { return _number; }
   explicit operator bool() const noexcept { return _number >= 0; }

private:
   int _number;
};

/// All connections of the HTTP server, and the one thread's loop that reads and writes them. It
/// never waits for a single client: sockets do not block, and each state of a connection but the
/// one in which the server itself owes the response has a deadline.
///
/// Invariant: a connection has at most one request handed over. It keeps its place among
/// `maxConnections` until that one is answered, even if the client has gone; this bounds both the
/// requests that wait for a worker and the answers that wait here.
/// Locking: everything belongs to the thread in Run, but what is said to be for any thread. The
/// lock of the answers is a leaf: nothing is called under it. Errors: what fails on a connection,
/// memory included, closes that one.
class Connections {
public:
   struct ReceivedRequest {
      uint64_t connection;
      RequestHead head;
      std::string body;
   };
   /// Takes a request over, to Answer it later from any thread. Called in Run.
   using RequestTaker = std::function<void(ReceivedRequest)>;
   /// The bytes of a response that refuses and says that the connection is closed. Called in Run.
   using RefusalWriter = std::function<std::string(const Refusal&)>;

   /// `listener` is a listening socket that does not block. PlatformException.
   Connections(Descriptor listener, const Limits& limits, RequestTaker takeRequest,
               RefusalWriter writeRefusal, Corvax::Logger* logger);
   ~Connections();

   /// Until End.
   void Run();

   /// Any thread: the bytes for the request of that connection; without any, or with `close`, the
   /// connection is closed then.
   void Answer(uint64_t connection, std::string response, bool close) noexcept;

   /// Any thread: closes the listener and the connections that are not owed a response; the others
   /// are closed when they have it.
   void StopAccepting();

   /// Any thread: Run hands what was answered before to the sockets, closes all of them and
   /// returns.
   void End();

private:
   using Clock = std::chrono::steady_clock;
   enum class State { Reading, Working, Writing, Draining, Closed };

   struct Connection {
      uint64_t id = 0;
      Descriptor socket;
      State state = State::Reading;
      uint32_t events = 0; ///< what epoll looks for
      Clock::time_point deadline = Clock::time_point::max();
      std::string input;
      size_t inputLooked = 0;          ///< so much of it was searched for the end of the headers
      bool requestBegun = false;       ///< Reading: not idle
      std::optional<RequestHead> head; ///< Reading: there once the headers are complete
      bool owed = false;               ///< its request was handed over and is not answered yet
      std::string output;
      size_t outputSent = 0;
      bool closeAfterOutput = false;
   };

   struct AnswerItem {
      uint64_t connection;
      std::string response;
      bool close;
   };

   void HandleEvent(uint64_t id, uint32_t events);
   void HandleWakeUp();
   void HandleDeadlines();
   int GetWaitMs() const;

   void Accept();
   void PauseAccepting(int errorNumber);
   void ResumeAccepting();
   template <class Step>
   void Guard(Connection& connection, Step step);

   void React(Connection& connection, uint32_t events);
   void Read(Connection& connection);
   void TakeRequest(Connection& connection);
   bool TakeHead(Connection& connection);
   void HandOver(Connection& connection);
   void Refuse(Connection& connection, const Refusal& refusal);
   void StartWriting(Connection& connection, std::string output, bool close);
   void Write(Connection& connection);
   void FinishWriting(Connection& connection);
   void HandleDeadline(Connection& connection);
   void TakeAnswers();
   void LookFor(Connection& connection, uint32_t events);
   static void Close(Connection& connection);

   const Limits _limits;
   const RequestTaker _takeRequest;
   const RefusalWriter _writeRefusal;
   const Corvax::Ref<Corvax::Logger> _logger;
   Descriptor _listener;
   const Descriptor _epoll;
   const Descriptor _wakeUp; ///< an eventfd
   Clock::time_point _acceptAgain = Clock::time_point::max();
   std::unordered_map<uint64_t, Connection> _connections;
   uint64_t _lastId;
   std::vector<AnswerItem> _answersTaken;
   std::atomic<bool> _stopping{false};
   std::atomic<bool> _ending{false};

   std::mutex _mutex; // guards _answers
   std::vector<AnswerItem> _answers;
};

} // namespace Http
