#pragma once

#include "corvax/logger.h"
#include "http/server.h"
#include "managementApi/apiJson.h"

#include <string>
#include <utility>
#include <vector>

namespace ManagementApi {

/// The management API over HTTP: one operation, one route. It reaches the performance manager and
/// the entities through the object registry. openApi.h describes every route.
///
/// Locking: none; requests are served by several threads at once, and what they call locks itself.
/// Errors: every failure is answered in the envelope; nothing is thrown.
class ApiRoutes {
public:
   /// `maxQuerySpecs` is the most that one query may hold.
   ApiRoutes(size_t maxQuerySpecs, Corvax::Logger* logger);

   /// The object must outlive the server.
   void AddRoutes(Http::Server& server) const;

   /// Method and pattern of every route.
   static std::vector<std::pair<std::string, std::string>> GetRoutes();

   /// The envelope of a refusal.
   static void FormatError(int status, const std::string& message, Http::Response& response);

private:
   using QueryResults = Plexa::DataArray<Quen::PerformanceManager::EntityMetricBase>;
   using QuerySpecs = Plexa::DataArray<QuerySpec>;
   using Handler = void (ApiRoutes::*)(const Http::Request&, Http::Response&) const;
   struct RouteEntry {
      const char* method;
      const char* pattern;
      Handler handler;
   };
   static const RouteEntry kRoutes[];

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

   void AnswerQuery(const Http::Request& request, QuerySpecs& specs,
                    Http::Response& response) const;

   const size_t _maxQuerySpecs;
   const Corvax::Ref<Corvax::Logger> _logger;
};

} // namespace ManagementApi
