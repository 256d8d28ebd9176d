#pragma once

#include "corvax/format.h"
#include "corvax/object.h"

#include <string>
#include <string_view>

namespace Corvax {

/// Log levels are syslog severities: a smaller number is more severe. A logger prints the levels up
/// to and including its own.
constexpr int kLogEmergency = 0;
constexpr int kLogError = 3;
constexpr int kLogWarning = 4;
constexpr int kLogNotice = 5;
constexpr int kLogInfo = 6;
constexpr int kLogDebug = 7;

/// Accepts "error", "warning", "notice", "info", "debug" and the other syslog severities, the
/// aliases "err", "warn", "verbose" (info) and "trivia"/"trace" (debug), and the numbers 0 to 7.
/// Returns false, with `level` unchanged, for any other text.
bool ParseLogLevel(std::string_view name, int& level);

/// A named source of log lines. Locking: none needed; any thread may log.
class Logger : public virtual Object {
public:
   virtual bool IsEnabled(int level) const = 0;

   /// InvalidArgumentException, listing the accepted levels, for an unknown name.
   virtual void SetLevel(const std::string& levelName) = 0;

   /// Prints one line, with control characters escaped.
   virtual void Write(int level, const std::string& text) = 0;

   /// Formats %1, %2, ... only when the level is enabled.
   template <class... Args>
   void Log(int level, std::string_view pattern, const Args&... args)
   {
      if (IsEnabled(level)) {
         Write(level, Format(pattern, args...));
      }
   }

protected:
   ~Logger() override;
};

/// The process's loggers by name.
class LogManager : public virtual Object {
public:
   /// The logger of that name; created, at the default level, by the first call.
   virtual Ref<Logger> GetLogger(const std::string& name) = 0;

   /// Sets the level of all loggers whose own level was never set, future ones included.
   virtual void SetDefaultLevel(const std::string& levelName) = 0;

protected:
   ~LogManager() override;
};

/// Loggers that write to standard error in the form the journal reads: "<severity>name: text".
Ref<LogManager> NewLogManager();

} // namespace Corvax
