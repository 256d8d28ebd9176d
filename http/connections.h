#pragma once

#include "corvax/descriptor.h"
#include "corvax/logger.h"
#include "http/message.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace Http {

/// All connections of the HTTP server, and the loop of the thread that reads and writes them. It
/// never waits for a single client: sockets do not block, and every state of a connection has a
/// deadline except when the server owes the response.
///
/// Invariant: at most one request of a connection is with the workers. Until it is answered the
/// connection counts towards `maxConnections`, even if the client has gone; this bounds both the
/// requests that wait for a worker and the answers that wait here.
/// Locking: the thread in Run owns everything except the answers. Their lock is a leaf: nothing is
/// called under it.
/// Errors: a failure on a connection, lack of memory included, closes that connection.
class Connections {
public:
   struct ReceivedRequest {
      uint64_t connection;
      RequestHead head;
      std::string body;
   };
   /// Takes over a request that any thread Answers later. Called in Run.
   using RequestTaker = std::function<void(ReceivedRequest)>;
   /// Returns the bytes of a refusal that announces the end of the connection. Called in Run.
   using RefusalWriter = std::function<std::string(const Refusal&)>;

   /// `listener` is a listening socket that does not block. PlatformException if epoll fails.
   Connections(Corvax::Descriptor listener, const Limits& limits, RequestTaker takeRequest,
               RefusalWriter writeRefusal, Corvax::Logger* logger);
   ~Connections();

   /// Returns after End. PlatformException if epoll fails.
   void Run();

   /// Any thread: the response to the connection's request, as bytes. With `close` the connection
   /// is closed once they are sent; without any bytes it is closed at once.
   void Answer(uint64_t connection, std::string response, bool close) noexcept;

   /// Any thread: closes the listener and the connections that wait for no response; the others are
   /// closed once they have it.
   void StopAccepting();

   /// Any thread: Run sends of the earlier answers what the sockets take at once, closes all
   /// connections and returns.
   void End();

private:
   using Clock = std::chrono::steady_clock;
   enum class State { Reading, Working, Writing, Draining, Closed };

   struct Connection {
      uint64_t id = 0;
      Corvax::Descriptor socket;
      State state = State::Reading;
      uint32_t events = 0; ///< that epoll reports
      Clock::time_point deadline = Clock::time_point::max();
      std::string input;
      size_t inputSearched = 0;        ///< bytes already searched for the end of the headers
      bool requestBegun = false;       ///< Reading: not idle
      std::optional<RequestHead> head; ///< Reading: set once the headers are complete
      bool owed = false;               ///< its request is with the workers
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
   void SetEvents(Connection& connection, uint32_t events);
   static void Close(Connection& connection);

   const Limits _limits;
   const RequestTaker _takeRequest;
   const RefusalWriter _writeRefusal;
   const Corvax::Ref<Corvax::Logger> _logger;
   const size_t _maxServed;
   const size_t _maxRefused; ///< besides those served
   Corvax::Descriptor _listener;
   const Corvax::Descriptor _epoll;
   const Corvax::Descriptor _wakeUp;                          ///< an eventfd
   Clock::time_point _acceptAgain = Clock::time_point::max(); ///< max: accepting is not paused
   bool _acceptFails = false;
   std::unordered_map<uint64_t, Connection> _connections;
   uint64_t _lastId;
   std::vector<AnswerItem> _answersTaken;
   std::atomic<bool> _stopping{false};
   std::atomic<bool> _ending{false};

   std::mutex _mutex; // guards _answers
   std::vector<AnswerItem> _answers;
};

} // namespace Http
