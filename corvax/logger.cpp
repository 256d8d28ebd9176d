#include "corvax/logger.h"

#include "corvax/exception.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

namespace Corvax {

namespace {

struct LevelName {
   std::string_view name;
   int level;
};

constexpr LevelName kLevelNames[] = {
   {"emergency", 0}, {"alert", 1}, {"critical", 2}, {"error", 3}, {"err", 3},
   {"warning", 4},   {"warn", 4},  {"notice", 5},   {"info", 6},  {"verbose", 6},
   {"debug", 7},     {"trace", 7}, {"trivia", 7},
};

/// A line feed in a name from outside must not forge a second log line.
std::string Escape(const std::string& text)
{
   static constexpr char kHex[] = "0123456789abcdef";
   std::string result;
   result.reserve(text.size());
   for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte >= 0x20 && byte != 0x7f) {
         result += c;
      } else {
         result += {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
      }
   }
   return result;
}

int LevelOrThrow(const std::string& levelName)
{
   int level = 0;
   if (!ParseLogLevel(levelName, level)) {
      throw InvalidArgumentException("Unknown log level '" + levelName +
                                     "'; use error, warning, notice, info, debug or 0 to 7");
   }
   return level;
}

class LoggerImpl : public Logger, public ObjectImpl {
public:
   LoggerImpl(std::string name, std::shared_ptr<spdlog::logger> backEnd,
              std::shared_ptr<const std::atomic<int>> defaultLevel)
      : _name(std::move(name)), _backEnd(std::move(backEnd)), _defaultLevel(std::move(defaultLevel))
   {
   }

   bool IsEnabled(int level) const override
   {
      const int own = _level.load(std::memory_order_relaxed);
      return level <= (own >= 0 ? own : _defaultLevel->load(std::memory_order_relaxed));
   }

   void SetLevel(const std::string& levelName) override { _level = LevelOrThrow(levelName); }

   void Write(int level, const std::string& text) override
   {
      const int severity = std::clamp(level, kLogEmergency, kLogDebug);
      _backEnd->log(spdlog::level::info, "<{}>{}: {}", severity, _name, Escape(text));
   }

private:
   static constexpr int kFollowsDefault = -1;

   const std::string _name;
   const std::shared_ptr<spdlog::logger> _backEnd;
   const std::shared_ptr<const std::atomic<int>> _defaultLevel; // a logger may outlive its manager
   std::atomic<int> _level{kFollowsDefault};
};

class LogManagerImpl : public LogManager, public ObjectImpl {
public:
   LogManagerImpl()
      : _backEnd(std::make_shared<spdlog::logger>(
           "agent", std::make_shared<spdlog::sinks::stderr_sink_mt>()))
   {
      _backEnd->set_pattern("%v");
      _backEnd->flush_on(spdlog::level::trace);
   }

   Ref<Logger> GetLogger(const std::string& name) override
   {
      const std::lock_guard guard(_mutex);
      Ref<LoggerImpl>& logger = _loggers[name];
      if (!logger) {
         logger = MakeRef<LoggerImpl>(name, _backEnd, _defaultLevel);
      }
      return logger;
   }

   void SetDefaultLevel(const std::string& levelName) override
   {
      *_defaultLevel = LevelOrThrow(levelName);
   }

private:
   const std::shared_ptr<spdlog::logger> _backEnd;
   const std::shared_ptr<std::atomic<int>> _defaultLevel =
      std::make_shared<std::atomic<int>>(kLogInfo);
   std::mutex _mutex;
   std::map<std::string, Ref<LoggerImpl>> _loggers;
};

} // namespace

Logger::~Logger() = default;
LogManager::~LogManager() = default;

bool ParseLogLevel(std::string_view name, int& level)
{
   if (name.size() == 1 && name[0] >= '0' && name[0] <= '7') {
      level = name[0] - '0';
      return true;
   }
   const auto found = std::ranges::find(kLevelNames, name, &LevelName::name);
   if (found == std::end(kLevelNames)) {
      return false;
   }
   level = found->level;
   return true;
}

Ref<LogManager> NewLogManager()
{
   return MakeRef<LogManagerImpl>();
}

} // namespace Corvax
