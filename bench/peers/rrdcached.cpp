#include "bench/peers/measure.h"
#include "bench/peers/rrdFiles.h"
#include "corvax/descriptor.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Peers;

constexpr int kPollUs = 10'000;
constexpr int kReadyPolls = 500;
constexpr int kIdleSec = 5;

/** The daemon on a socket in the scratch directory; ends with this object, or with this process. */
class Daemon {
public:
   explicit Daemon(const std::string& directory)
   {
      _pid = fork();
      if (_pid < 0) {
         ThrowErrno("fork");
      }
      if (_pid == 0) {
         Become(directory);
      }
   }
   ~Daemon()
   {
      kill(_pid, SIGKILL); // its files are only scratch
      waitpid(_pid, nullptr, 0);
   }
   Daemon(const Daemon&) = delete;
   Daemon& operator=(const Daemon&) = delete;

   pid_t Pid() const { return _pid; }

private:
   [[noreturn]] static void Become(const std::string& directory)
   {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(STDERR_FILENO, STDOUT_FILENO);
      const std::string address = "unix:" + directory + "/sock";
      const std::string pidFile = directory + "/pid";
      // It never writes on its own (-w, -f): the client flushes by virtual time. Room for 16 values
      // at a time (-a) saves it an allocation per value.
      execlp("rrdcached", "rrdcached", "-g", "-l", address.c_str(), "-b", directory.c_str(), "-p",
             pidFile.c_str(), "-w", "86400", "-f", "172800", "-a", "16", nullptr);
      std::perror("rrdcached");
      _exit(127);
   }

   pid_t _pid;
};

/** The daemon's line protocol. An answer begins with its number of lines, or with an error below 0.
 */
class Connection {
public:
   explicit Connection(const std::string& path)
   {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      if (path.size() >= sizeof(address.sun_path)) {
         throw std::runtime_error("the path of the socket is too long: " + path);
      }
      std::memcpy(address.sun_path, path.data(), path.size());
      for (int poll = 0; poll < kReadyPolls; ++poll) {
         _socket = Corvax::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
         if (connect(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
             0) {
            return;
         }
         usleep(kPollUs);
      }
      ThrowErrno("connect to " + path);
   }

   void Send(std::string_view text)
   {
      while (!text.empty()) {
         const ssize_t sent = send(_socket.Get(), text.data(), text.size(), MSG_NOSIGNAL);
         if (sent < 0) {
            ThrowErrno("send to rrdcached");
         }
         text.remove_prefix(static_cast<size_t>(sent));
      }
   }

   /** The status line's number; throws with its text if it is an error. */
   int ReceiveStatus()
   {
      const std::string line = ReceiveLine();
      const int status = std::stoi(line);
      if (status < 0) {
         throw std::runtime_error("rrdcached answered " + line);
      }
      return status;
   }

   std::string ReceiveLine()
   {
      size_t end;
      while ((end = _input.find('\n', _at)) == std::string::npos) {
         ReceiveMore();
      }
      std::string line = _input.substr(_at, end - _at);
      _at = end + 1;
      return line;
   }

private:
   void ReceiveMore()
   {
      _input.erase(0, _at);
      _at = 0;
      char chunk[65536];
      const ssize_t got = recv(_socket.Get(), chunk, sizeof(chunk), 0);
      if (got <= 0) {
         throw std::runtime_error("rrdcached closed the connection");
      }
      _input.append(chunk, static_cast<size_t>(got));
   }

   Corvax::Descriptor _socket;
   std::string _input;
   size_t _at = 0;
};

class RrdCached : public Store {
public:
   RrdCached(RrdFiles files, int flushSec, const Daemon& daemon)
      : _files(std::move(files)), _flushStamps(flushSec / kStepSec), _daemon(daemon),
        _connection(_files.directory + "/sock")
   {
   }

   void Prepare(int stamp) override
   {
      _batch.clear();
      for (int file = 0; file < _files.FileCount(); ++file) {
         _batch += "UPDATE " + _files.Name(file) + " " + _files.UpdateText(file, stamp) + "\n";
      }
      _batch += ".\n";
   }

   void Write(int stamp) override
   {
      const int64_t before = CpuNs();
      _connection.Send("BATCH\n");
      _connection.ReceiveStatus();
      _connection.Send(_batch);
      if (const int errors = _connection.ReceiveStatus(); errors != 0) {
         throw std::runtime_error("rrdcached refused updates: " + std::to_string(errors));
      }
      if ((stamp + 1) % _flushStamps == 0) {
         FlushAll();
      }
      _clientCpuNs += CpuNs() - before;
      ++_stamps;
   }

   int64_t StoreCpuNs() const override { return CpuNs(_daemon.Pid()); }

   double ClientUsPerSample() const
   {
      return static_cast<double>(_clientCpuNs) / 1e3 / _stamps / kSeriesCount;
   }

   /** Fetches an hour of a series as text; the daemon writes the series' pending values first. */
   void Fetch(int series, int64_t endSec)
   {
      _connection.Send("FETCH " + _files.Name(series) + " AVERAGE " +
                       std::to_string(endSec - 3600) + " " + std::to_string(endSec - kStepSec) +
                       "\n");
      for (int lines = _connection.ReceiveStatus(); lines > 0; --lines) {
         _connection.ReceiveLine();
      }
   }

private:
   /** FLUSHALL only queues: waits until the daemon has written each file once more. */
   void FlushAll()
   {
      _connection.Send("FLUSHALL\n");
      _connection.ReceiveStatus();
      _writesDue += _files.FileCount();
      while (UpdatesWritten() < _writesDue) {
         usleep(kPollUs);
      }
   }

   int64_t UpdatesWritten()
   {
      constexpr std::string_view kField = "UpdatesWritten: ";
      _connection.Send("STATS\n");
      int64_t written = -1;
      for (int lines = _connection.ReceiveStatus(); lines > 0; --lines) {
         const std::string line = _connection.ReceiveLine();
         if (line.starts_with(kField)) {
            written = std::stoll(line.substr(kField.size()));
         }
      }
      return written;
   }

   RrdFiles _files;
   int _flushStamps;
   const Daemon& _daemon;
   Connection _connection;
   std::string _batch;
   int64_t _writesDue = 0;
   int64_t _clientCpuNs = 0;
   int _stamps = 0;
};

double IdleMsPerSec(const Daemon& daemon)
{
   sleep(1);
   const int64_t before = CpuNs(daemon.Pid());
   sleep(kIdleSec);
   return static_cast<double>(CpuNs(daemon.Pid()) - before) / 1e6 / kIdleSec;
}

Plan MakePlan(const Options& options, int flushSec)
{
   const int flushStamps = flushSec / kStepSec;
   if (options.quick) {
      return {.repetitions = 1,
              .stampsPerRepetition = std::max(30, flushStamps),
              .coldWarmUp = 0,
              .coldStamps = flushStamps};
   }
   return {
      .repetitions = 3,
      // A third of an hour has four flushes of 300 s; one flush of 3600 s needs the whole hour.
      .stampsPerRepetition = std::max(kStampCount / 3, flushStamps),
      .coldWarmUp = 0,
      .coldStamps = std::max(30, flushStamps)};
}

void Measure(const Options& options)
{
   const int flushSec = options.variant == "300" ? 300 : 3600;
   if (options.variant != std::to_string(flushSec)) {
      throw std::runtime_error("the variant is 300 or 3600, the seconds between flushes");
   }
   const RrdFiles files{options.scratch, 1};
   files.Create();
   const Daemon daemon(options.scratch);
   RrdCached cached(files, flushSec, daemon);
   const Plan plan = MakePlan(options, flushSec);
   const std::string who =
      "rrdcached " + RrdVersion() + ", flush every " + std::to_string(flushSec) + " s";
   std::string note =
      "CPU of the daemon; one file per series, BATCH over a unix socket, no journal; "
      "virtual time: repetitions of " +
      std::to_string(plan.stampsPerRepetition) + " stamps back to back, FLUSHALL every " +
      std::to_string(flushSec / kStepSec) + " stamps";
   int stamp = 0;
   const double hotUs = HotCostUs(cached, plan, stamp);
   const int64_t endSec = StampSec(stamp - 1);
   CheckKnown(FetchRrd(files.Path(0), endSec, 3600, kStepSec), std::min(stamp, kStampCount));
   char client[80];
   std::snprintf(client, sizeof(client), "; the client's %.2f us per sample not counted",
                 cached.ClientUsPerSample());
   note += client;
   Report("ingest-hot", who, hotUs, "us", note);
   Report("query-1h", who, LatencyP50Us(2000, [&](int series) { cached.Fetch(series, endSec); }),
          "us", "FETCH over the socket, nothing pending");
   Report("resident-mib", who, ResidentMib(daemon.Pid()), "MiB", "the daemon after a flush");
   Report("idle-ms-per-s", who, IdleMsPerSec(daemon), "ms/s", "");
   const CacheFlusher flusher(options.scratch);
   Report("ingest-cold", who, ColdCostUs(cached, plan, flusher, stamp), "us",
          note + "; syncfs and CPU caches emptied before each stamp");
}

} // namespace

int main(int argc, char** argv)
{
   return Peers::RunPeer(argc, argv, Measure);
}
