#pragma once

#include "agentd/apiJson.h"
#include "agentd/httpServer.h"
#include "corvax/logger.h"

#include <string>
#include <utility>
#include <vector>

namespace Agentd {

/// The management API over HTTP: one operation, one route. It reaches the performance manager and the
/// entities through the object registry. openApi.h describes every route.
///
/// Locking: none; requests are served by several threads at once, and what they call locks itself.
/// Errors: every failure is answered in the envelope; nothing is thrown.
class ManagementApi {
public:
   /// `maxQuerySpecs` is the most that one query may hold.
   ManagementApi(size_t maxQuerySpecs, Corvax::Logger* logger);

   /// The object must outlive the server.
   void AddRoutes(HttpServer& server) const;

   /// Method and pattern of every route.
   static std::vector<std::pair<std::string, std::string>> GetRoutes();

   /// The envelope of a refusal.
   static void FormatError(int status, const std::string& message, HttpResponse& response);

private:
   using QueryResults = Plexa::DataArray<Quen::PerformanceManager::EntityMetricBase>;
   using QuerySpecs = Plexa::DataArray<QuerySpec>;
   using Handler = void (ManagementApi::*)(const HttpRequest&, HttpResponse&) const;
   struct RouteEntry {
      const char* method;
      const char* pattern;
      Handler handler;
   };
   static const RouteEntry kRoutes[];

   void Serve(Handler handler, const HttpRequest& request, HttpResponse& response) const;

   void GetCounters(const HttpRequest& request, HttpResponse& response) const;
   void GetIntervals(const HttpRequest& request, HttpResponse& response) const;
   void GetEntities(const HttpRequest& request, HttpResponse& response) const;
   void GetProvider(const HttpRequest& request, HttpResponse& response) const;
   void GetMetrics(const HttpRequest& request, HttpResponse& response) const;
   void GetQuery(const HttpRequest& request, HttpResponse& response) const;
   void PostQuery(const HttpRequest& request, HttpResponse& response) const;
   void GetHostUsage(const HttpRequest& request, HttpResponse& response) const;
   void GetVmUsage(const HttpRequest& request, HttpResponse& response) const;
   void GetHealthy(const HttpRequest& request, HttpResponse& response) const;
   void GetReady(const HttpRequest& request, HttpResponse& response) const;
   void GetOpenApi(const HttpRequest& request, HttpResponse& response) const;

   void AnswerQuery(const HttpRequest& request, QuerySpecs& specs, HttpResponse& response) const;

   const size_t _maxQuerySpecs;
   const Corvax::Ref<Corvax::Logger> _logger;
};

} // namespace Agentd
