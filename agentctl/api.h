#pragma once

#include "agentctl/httpClient.h"

#include "corvax/dateTime.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Agentctl {

struct Counter {
   int64_t id;
   std::string group;
   std::string name;
   std::string unit;
   std::string statsType;
   std::string rollup; ///< "none" for raw values
};

struct Interval {
   std::string name;
   int64_t periodSec;
   int64_t lengthSec;
};

/// Whether the current figures of a virtual machine are there.
struct Freshness {
   std::string state; ///< fresh, partly, stale or off; empty if the server does not say
   std::optional<Corvax::DateTime> since;
   std::string reason;

   bool IsAnyMissing() const { return state == "partly" || state == "stale"; }
};

struct Entity {
   std::string type; ///< HostSystem, VirtualMachine or ResourcePool
   std::string id;
   std::string name;
   std::optional<std::string> state;
   std::optional<std::string> parent;
   Freshness freshness = {};
};

struct Metric {
   int64_t counterId;
   std::string instance; ///< empty: the aggregate; "*" in a query: all

   friend auto operator<=>(const Metric&, const Metric&) = default;
};

struct Series {
   Metric metric;
   std::vector<std::optional<int64_t>> values; ///< one per time stamp
};

struct EntitySeries {
   std::string entityId;
   std::vector<Corvax::DateTime> times;
   std::vector<Series> series;
};

/// A query for the samples of one entity. Times are texts that the server parses, empty for none.
struct QuerySpec {
   std::string entityId;
   std::vector<std::string> metrics; ///< such as "cpu.usage:0"; none: all
   std::string from;
   std::string to;
   std::optional<int64_t> maxSample; ///< in periods; the real-time interval only
   int64_t intervalSec = 0;
};

struct Usage {
   std::optional<int64_t> cpuMhz;
   std::optional<int64_t> memConsumedKb;
   std::optional<int64_t> memActiveKb;
};

/// The server's id of its host.
constexpr char kHostId[] = "ha-host";

/// The calls of the management API.
///
/// Errors: Corvax::Exception with a text for the user. It is the server's own text if the server
/// refused the request.
class Api {
public:
   /// Keeps a reference.
   explicit Api(HttpClient& client) : _client(client) {}

   std::vector<Counter> GetCounters();
   std::vector<Interval> GetIntervals();
   std::vector<Entity> GetEntities();
   std::vector<Metric> GetMetrics(const std::string& entityId);
   /// The sampling period of an entity's real-time interval in seconds.
   int64_t GetRefreshRate(const std::string& entityId);

   /// Empty if there is no data.
   std::vector<EntitySeries> Query(const QuerySpec& spec);
   /// The same as CSV, exactly as the server sent it.
   std::string QueryCsv(const QuerySpec& spec);
   /// The same as indented JSON in ASCII; `hasData` becomes whether there is any data.
   std::string QueryJson(const QuerySpec& spec, bool& hasData);
   /// The samples of the newest two periods of several entities. Sends one request per 64 entities,
   /// which is the agent's default limit.
   std::vector<EntitySeries> QueryNewest(const std::vector<Entity>& entities,
                                         const std::vector<Metric>& metrics, int64_t intervalSec);

   Usage GetHostUsage();
   Usage GetVmUsage(const std::string& vmId);

private:
   HttpClient& _client;
};

} // namespace Agentctl
