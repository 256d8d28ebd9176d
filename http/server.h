#pragma once

#include "corvax/logger.h"
#include "corvax/thread.h"
#include "http/connections.h"
#include "http/message.h"
#include "http/routes.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Http {

class ResponseWriter;

/// Fills in the body of a refusal. Any of the server's threads may call it, several at a time.
using ErrorFormatter =
   std::function<void(int status, const std::string& message, Response& response)>;

/// An HTTP/1.1 server. One thread, "http-io", owns the sockets; a fixed number of workers, "http-0"
/// and so on, run the handlers. A worker gets a complete request and hands its response back to
/// "http-io", so a slow client cannot occupy a worker.
///
/// Locking: call Route and Listen first, from one thread; RefuseRequests and Stop from any thread
/// but the server's own. Handlers run on several workers at a time. The lock of the waiting
/// requests and the one in Connections are leaves: never held together, nothing is called under
/// them.
/// Errors: a handler's Refusal goes to the client; any other exception is logged and answered
/// with 500. None ends the process or a worker.
class Server {
public:
   Server(Limits limits, ErrorFormatter formatError, Corvax::Logger* logger);
   ~Server();

   /// "GET", "/api/v1/providers/{entity}"; before Listen. If a path matches several patterns, the
   /// one with the fewest parameters wins. HEAD and OPTIONS need no routes.
   /// InvalidArgumentException as from Routes::Add.
   void Route(const std::string& method, const std::string& pattern, Handler handler);

   /// "127.0.0.1:8697", "[::1]:0", "localhost:0"; returns the port. A host name is bound to the
   /// first address that works. The exception names the address and the reason.
   int Listen(const std::string& address);

   /// From now on every request is answered with 503.
   void RefuseRequests() { _refusing = true; }

   /// Closes the listener, lets running handlers finish, refuses the waiting requests, sends as
   /// much of the responses as the sockets take at once, closes all connections and joins the
   /// threads. May be called again.
   void Stop();

private:
   using ReceivedRequest = Connections::ReceivedRequest;

   void Work();
   std::optional<ReceivedRequest> TakeNext();
   void Serve(ReceivedRequest& request, ResponseWriter& writer);
   Response Respond(ReceivedRequest& request);
   void Dispatch(ReceivedRequest& request, Response& response);
   Response MakeRefusal(const Refusal& refusal);
   void LogFailure(const ReceivedRequest& request);

   const Limits _limits;
   const ErrorFormatter _formatError;
   const Corvax::Ref<Corvax::Logger> _logger;
   Routes _routes;
   std::atomic<bool> _refusing{false};
   std::unique_ptr<Connections> _connections;
   std::jthread _ioThread;
   std::vector<std::jthread> _workers;

   std::mutex _mutex; // guards the members below
   std::condition_variable _wake;
   std::deque<ReceivedRequest> _waiting;
   bool _stopping = false;
};

} // namespace Http
