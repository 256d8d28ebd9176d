#pragma once

#include "corvax/logger.h"
#include "http/server.h"
#include "managementApi/querySpec.h"

#include <string>
#include <utility>
#include <vector>

namespace ManagementApi {

/// The management API over HTTP: one route for each operation. openapi.json describes all routes.
///
/// Locking: none; several threads serve requests at once; the objects they use do their own
/// locking. Errors: the handlers throw Refusals, the performance manager's faults included, and the
/// server answers them with FormatError.
class ApiRoutes {
public:
   /// `maxQuerySpecs`: how many one query may have.
   ApiRoutes(size_t maxQuerySpecs, Corvax::Logger* logger);

   /// The object must outlive the server.
   void AddRoutes(Http::Server& server) const;

   /// Method and pattern of every route.
   static std::vector<std::pair<std::string, std::string>> GetRoutes();

   /// The body of a refusal: the error envelope.
   static void FormatError(int status, const std::string& message, Http::Response& response);

private:
   using Handler = void (ApiRoutes::*)(const Http::Request&, Http::Response&) const;
   struct RouteEntry {
      const char* method;
      const char* pattern;
      Handler handler;
   };
   static const RouteEntry kRoutes[];

   /// Turns every exception of the runtime's family into a Refusal.
   void Serve(Handler handler, const Http::Request& request, Http::Response& response) const;

   void GetCounters(const Http::Request& request, Http::Response& response) const;
   void GetIntervals(const Http::Request& request, Http::Response& response) const;
   void GetEntities(const Http::Request& request, Http::Response& response) const;
   void GetProvider(const Http::Request& request, Http::Response& response) const;
   void GetMetrics(const Http::Request& request, Http::Response& response) const;
   void GetQuery(const Http::Request& request, Http::Response& response) const;
   void PostQuery(const Http::Request& request, Http::Response& response) const;
   void GetHostUsage(const Http::Request& request, Http::Response& response) const;
   void GetVmUsage(const Http::Request& request, Http::Response& response) const;
   void GetHealthy(const Http::Request& request, Http::Response& response) const;
   void GetReady(const Http::Request& request, Http::Response& response) const;
   void GetOpenApi(const Http::Request& request, Http::Response& response) const;

   static void AnswerQuery(const Http::Request& request, QuerySpecs& specs,
                           const Counters& counters, Http::Response& response);

   const size_t _maxQuerySpecs;
   const Corvax::Ref<Corvax::Logger> _logger;
};

} // namespace ManagementApi
