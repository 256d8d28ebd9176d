#include "bench/peers/measure.h"
#include "bench/peers/work.h"

#include <cstdio>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <vector>

#include <sqlite3.h>

namespace {

using namespace Peers;

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

/** The differences between the two orders of the key. */
struct Layout {
   const char* name;
   const char* schema;
   const char* rollUp; // ?1 and ?2: the first and the last second of the period
   const char* query;  // ?1: series, ?2 and ?3 as above
};

// Rows sorted by series: a write touches a page per series, a read one or two pages.
constexpr Layout kSeriesFirst{
   "key (series, time)",
   "CREATE TABLE sample (series INTEGER, time INTEGER, value REAL, PRIMARY KEY (series, time)) "
   "WITHOUT ROWID;"
   "CREATE TABLE rollup (series INTEGER, time INTEGER, average REAL, maximum REAL, minimum REAL, "
   "PRIMARY KEY (series, time)) WITHOUT ROWID;",
   "INSERT INTO rollup SELECT sample.series, ?2, avg(value), max(value), min(value) FROM series "
   "CROSS JOIN sample ON sample.series = series.id AND time BETWEEN ?1 AND ?2 "
   "GROUP BY sample.series",
   "SELECT time, value FROM sample WHERE series = ?1 AND time BETWEEN ?2 AND ?3"};

// Rows sorted by time: writes append, a read looks up a page per time.
constexpr Layout kTimeFirst{
   "key (time, series)",
   "CREATE TABLE sample (time INTEGER, series INTEGER, value REAL, PRIMARY KEY (time, series)) "
   "WITHOUT ROWID;"
   "CREATE TABLE rollup (time INTEGER, series INTEGER, average REAL, maximum REAL, minimum REAL, "
   "PRIMARY KEY (time, series)) WITHOUT ROWID;",
   "INSERT INTO rollup SELECT ?2, series, avg(value), max(value), min(value) FROM sample "
   "WHERE time BETWEEN ?1 AND ?2 GROUP BY series",
   "SELECT sample.time, value FROM stamp CROSS JOIN sample ON sample.time = stamp.time "
   "AND series = ?1 WHERE stamp.time BETWEEN ?2 AND ?3"};

constexpr const char* kTables = "CREATE TABLE series (id INTEGER PRIMARY KEY);"
                                "CREATE TABLE stamp (time INTEGER PRIMARY KEY);";

// As safe as the page cache: the log survives the death of the process, but nothing is synced.
constexpr const char* kPragmas = "PRAGMA page_size = 4096; PRAGMA journal_mode = WAL;"
                                 "PRAGMA synchronous = OFF; PRAGMA cache_size = -131072;"
                                 "PRAGMA locking_mode = EXCLUSIVE; PRAGMA temp_store = MEMORY;";

class Database {
public:
   explicit Database(const std::string& path)
   {
      const int result = sqlite3_open(path.c_str(), &_db);
      if (result != SQLITE_OK) {
         const std::string text = sqlite3_errmsg(_db);
         sqlite3_close(_db);
         throw std::runtime_error("open " + path + ": " + text);
      }
   }
   ~Database() { sqlite3_close(_db); }
   Database(const Database&) = delete;
   Database& operator=(const Database&) = delete;

   void Execute(const char* sql) { Check(sqlite3_exec(_db, sql, nullptr, nullptr, nullptr), sql); }

   Statement Prepare(const char* sql)
   {
      sqlite3_stmt* statement = nullptr;
      Check(sqlite3_prepare_v3(_db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr), sql);
      return {statement, sqlite3_finalize};
   }

   /** Executes a statement with integers bound to it and returns its number of rows. */
   int Execute(const Statement& statement, std::initializer_list<int64_t> arguments)
   {
      int ix = 0;
      for (const int64_t argument : arguments) {
         sqlite3_bind_int64(statement.get(), ++ix, argument);
      }
      return StepToEnd(statement);
   }

   int StepToEnd(const Statement& statement)
   {
      int rows = 0;
      int result;
      while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
         ++rows;
      }
      sqlite3_reset(statement.get());
      Check(result == SQLITE_DONE ? SQLITE_OK : result, "step");
      return rows;
   }

private:
   void Check(int result, const char* what)
   {
      if (result != SQLITE_OK) {
         throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(_db));
      }
   }

   sqlite3* _db = nullptr;
};

/** A database of one layout with its statements, which are destroyed before the connection. */
struct Session {
   Session(const std::string& path, const Layout& layout) : db(path)
   {
      db.Execute(kPragmas);
      db.Execute(kTables);
      db.Execute(layout.schema);
      db.Execute("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n LIMIT 10000) "
                 "INSERT INTO series SELECT i FROM n");
      const bool seriesFirst = layout.schema == kSeriesFirst.schema;
      begin = db.Prepare("BEGIN");
      commit = db.Prepare("COMMIT");
      stamp = db.Prepare("INSERT INTO stamp VALUES (?1)");
      sample =
         db.Prepare(seriesFirst ? "INSERT INTO sample (series, time, value) VALUES (?1, ?2, ?3)"
                                : "INSERT INTO sample (time, series, value) VALUES (?2, ?1, ?3)");
      rollUp = db.Prepare(layout.rollUp);
      query = db.Prepare(layout.query);
   }

   Database db;
   Statement begin{nullptr, sqlite3_finalize};
   Statement commit{nullptr, sqlite3_finalize};
   Statement stamp{nullptr, sqlite3_finalize};
   Statement sample{nullptr, sqlite3_finalize};
   Statement rollUp{nullptr, sqlite3_finalize};
   Statement query{nullptr, sqlite3_finalize};
};

class SqliteStore : public Store {
public:
   SqliteStore(std::string directory, const Layout& layout)
      : _path(std::move(directory) + "/peer.db"), _layout(layout)
   {
   }

   void BeginRepetition() override
   {
      _session.reset();
      for (const char* suffix : {"", "-wal", "-shm"}) {
         std::remove((_path + suffix).c_str());
      }
      _session = std::make_unique<Session>(_path, _layout);
   }

   void Prepare(int stamp) override
   {
      _values.resize(kSeriesCount);
      for (int series = 0; series < kSeriesCount; ++series) {
         _values[static_cast<size_t>(series)] = Value(series, stamp);
      }
   }

   void Write(int stamp) override
   {
      Session& session = *_session;
      const int64_t nowSec = StampSec(stamp);
      session.db.Execute(session.begin, {});
      session.db.Execute(session.stamp, {nowSec});
      for (int series = 0; series < kSeriesCount; ++series) {
         sqlite3_bind_double(session.sample.get(), 3, _values[static_cast<size_t>(series)]);
         session.db.Execute(session.sample, {series, nowSec});
      }
      if ((stamp + 1) % kStampsPerRollup == 0) {
         session.db.Execute(session.rollUp, {nowSec - kRollupSec + 1, nowSec});
      }
      session.db.Execute(session.commit, {});
   }

   void Query(int series, int64_t endSec, int rowsDue)
   {
      const int rows = _session->db.Execute(_session->query, {series, endSec - 3600 + 1, endSec});
      if (rows != rowsDue) {
         throw std::runtime_error("the query returned " + std::to_string(rows) + " rows");
      }
   }

private:
   std::string _path;
   const Layout& _layout;
   std::unique_ptr<Session> _session;
   std::vector<double> _values;
};

void Measure(const Options& options)
{
   const Layout& layout = options.variant == "series-time" ? kSeriesFirst : kTimeFirst;
   if (&layout == &kTimeFirst && options.variant != "time-series") {
      throw std::runtime_error("the variant is series-time or time-series");
   }
   const Plan plan = options.quick ? QuickPlan()
                                   : Plan{.repetitions = 3,
                                          .stampsPerRepetition = kStampCount,
                                          .coldWarmUp = 90,
                                          .coldStamps = 30};
   const std::string who = std::string("SQLite ") + sqlite3_libversion() + ", " + layout.name;
   const std::string note =
      "WITHOUT ROWID, WAL, synchronous OFF, cache 128 MiB, a transaction "
      "per stamp, rollups by SQL; a new database per repetition, so no expiry";
   int stamp = 0;
   SqliteStore store(options.scratch, layout);
   Report("ingest-hot", who, HotCostUs(store, plan, stamp), "us", note);
   Report("query-1h", who,
          LatencyP50Us(2000,
                       [&](int series) {
                          store.Query(series, StampSec(stamp - 1), plan.stampsPerRepetition);
                       }),
          "us", "a prepared SELECT in process, warm");
   Report("resident-mib", who, ResidentMib(), "MiB", "the program with the library");
   const CacheFlusher flusher(options.scratch);
   Report("ingest-cold", who, ColdCostUs(store, plan, flusher, stamp), "us",
          note + "; syncfs and CPU caches emptied before each stamp, after " +
             std::to_string(plan.coldWarmUp) + " stamps not counted");
}

} // namespace

int main(int argc, char** argv)
{
   return Peers::RunPeer(argc, argv, Measure);
}
