#pragma once

#include "corvax/logger.h"
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
#include <thread>
#include <vector>

namespace Http {

class ResponseWriter;

/// Makes the body of a refusal. Called by any of the server's threads, several at a time.
using ErrorFormatter =
   std::function<void(int status, const std::string& message, Response& response)>;

/// A server of HTTP/1.1: one thread, "http-io", owns the sockets, a fixed number of workers,
/// "http-0" and so on, run the handlers. A worker gets a request when all of it has come and gives
/// its response away, so that no client, however slow, holds one.
///
/// Locking: Route and Listen before, on one thread; RefuseRequests and Stop on any other than the
/// server's own. Handlers run on several workers at a time. The lock of the waiting requests and
/// the one in Connections are leaves: never held together, nothing is called under them. Errors: a
/// handler's Refusal goes to the client; any other exception is logged and answered 500. None ends
/// the process or a worker.
class Server {
public:
   Server(Limits limits, ErrorFormatter formatError, Corvax::Logger* logger);
   ~Server();

   /// "GET", "/api/v1/providers/{entity}"; before Listen. Of several patterns that a path fits, the
   /// one with the fewest parameters has it. HEAD and OPTIONS need no routes.
   /// InvalidArgumentException for a pattern that does not begin with "/", or is there already.
   void Route(const std::string& method, const std::string& pattern, Handler handler);

   /// "127.0.0.1:8697", "[::1]:0", "localhost:0"; returns the port. A name is taken by its first
   /// address that can be had. An exception names the address and the reason.
   int Listen(const std::string& address);

   /// From now on every request is answered 503.
   void RefuseRequests() { _refusing = true; }

   /// Closes the listener, lets running handlers end, refuses what waits, sends of the responses
   /// what the sockets take at once, closes connections and joins the threads. May be called again.
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
   std::thread _ioThread;
   std::vector<std::thread> _workers;

   std::mutex _mutex; // guards what follows
   std::condition_variable _wake;
   std::deque<ReceivedRequest> _waiting;
   bool _stopping = false;
};

} // namespace Http
