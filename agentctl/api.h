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

struct Entity {
   std::string type; ///< HostSystem, VirtualMachine or ResourcePool
   std::string id;
   std::string name;
   std::optional<std::string> state;
   std::optional<std::string> parent;
};

struct Metric {
   int64_t counterId;
   std::string instance; ///< empty: the aggregate; "*" in a question: all

   friend auto operator<=>(const Metric&, const Metric&) = default;
};

struct Series {
   Metric metric;
   std::vector<std::optional<int64_t>> values; ///< one a time stamp
};

struct EntitySeries {
   std::string entityId;
   std::vector<Corvax::DateTime> times;
   std::vector<Series> series;
};

/// A question for one entity. Times are texts of the server's grammar, empty for none.
struct QuerySpec {
   std::string entityId;
   std::vector<std::string> metrics; ///< "cpu.usage:0"; none: all
   std::string from;
   std::string to;
   std::optional<int64_t> maxSample;
   int64_t intervalSec = 0;
};

struct Usage {
   std::optional<int64_t> cpuMhz;
   std::optional<int64_t> memConsumedKb;
   std::optional<int64_t> memActiveKb;
};

/// The id under which the server has its host.
constexpr char kHostId[] = "ha-host";

/// The management API as calls.
///
/// Errors: Corvax::Exception, with a text for the user: the server's own where it refused, else
/// that of the client, or that the answer has not the form it must have.
class Api {
public:
   /// Keeps a reference.
   explicit Api(HttpClient& client) : _client(client) {}

   std::vector<Counter> GetCounters();
   std::vector<Interval> GetIntervals();
   std::vector<Entity> GetEntities();
   std::vector<Metric> GetMetrics(const std::string& entityId);
   /// Seconds of an entity's real-time interval.
   int64_t GetRefreshRate(const std::string& entityId);

   /// The answer's elements; none where there is no data.
   std::vector<EntitySeries> Query(const QuerySpec& spec);
   /// The same as text/csv, as it came.
   std::string QueryCsv(const QuerySpec& spec);
   /// The same as indented JSON in ASCII, `hasData` false where there is none.
   std::string QueryJson(const QuerySpec& spec, bool& hasData);
   /// The newest samples of each metric of several entities, two at least where there are so many:
   /// one request for up to 64 entities, the most that the agent takes unless configured otherwise.
   std::vector<EntitySeries> QueryNewest(const std::vector<Entity>& entities,
                                         const std::vector<Metric>& metrics, int64_t intervalSec);

   Usage GetHostUsage();
   Usage GetVmUsage(const std::string& vmId);

private:
   HttpClient& _client;
};

} // namespace Agentctl
