#include "agentctl/screen.h"

#include "console/printable.h"

#include "corvax/exception.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace Agentctl {

namespace {

constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;

/// Switch to the alternate screen, hide the cursor, disable wrapping; and the reverse.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J";
constexpr std::string_view kLeave = "\x1b[?7h\x1b[?25h\x1b[?1049l";

// Shared with the signal handlers, which call async-signal-safe functions only.
termios g_termiosBefore;
termios g_termiosInUse;
volatile sig_atomic_t g_hasTermios = 0;
volatile sig_atomic_t g_isEntered = 0;
volatile sig_atomic_t g_isResized = 0;

void WriteRaw(std::string_view text)
{
   // Nothing can be done if the terminal is gone.
   [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
}

void EnterTerminal()
{
   g_isEntered = 1;
   if (g_hasTermios != 0) {
      ::tcsetattr(STDIN_FILENO, TCSANOW, &g_termiosInUse);
   }
   WriteRaw(kEnter);
}

void LeaveTerminal()
{
   if (g_isEntered == 0) {
      return;
   }
   g_isEntered = 0;
   WriteRaw(kLeave);
   if (g_hasTermios != 0) {
      ::tcsetattr(STDIN_FILENO, TCSANOW, &g_termiosBefore);
   }
}

void OnStop(int)
{
   LeaveTerminal();
   ::_exit(0);
}

/// SA_RESETHAND has restored the default action, so that raising the signal again ends the process.
void OnDeath(int signal)
{
   LeaveTerminal();
   ::raise(signal);
}

void OnSuspend(int)
{
   const int before = errno;
   LeaveTerminal();
   ::kill(::getpid(), SIGSTOP);
   EnterTerminal();
   g_isResized = 1;
   errno = before;
}

void OnResize(int)
{
   g_isResized = 1;
}

void SetHandler(int signal, void (*handler)(int), int flags)
{
   struct sigaction action = {};
   action.sa_handler = handler;
   action.sa_flags = flags;
   ::sigfillset(&action.sa_mask); // no handler interrupts another
   ::sigaction(signal, &action, nullptr);
}

/// Installs the handlers of a screen, or restores the default actions.
void SetHandlers(bool install)
{
   for (const int signal : {SIGINT, SIGTERM}) {
      SetHandler(signal, install ? OnStop : SIG_DFL, SA_RESTART);
   }
   for (const int signal : {SIGHUP, SIGQUIT}) {
      SetHandler(signal, install ? OnDeath : SIG_DFL, static_cast<int>(SA_RESETHAND));
   }
   SetHandler(SIGTSTP, install ? OnSuspend : SIG_DFL, SA_RESTART);
   SetHandler(SIGWINCH, install ? OnResize : SIG_DFL, SA_RESTART);
}

/// Blocks the signals that request a redraw, so that none can arrive between the check of
/// g_isResized and ppoll, which unblocks them.
class RedrawSignalsBlocked {
public:
   RedrawSignalsBlocked()
   {
      sigset_t set;
      ::sigemptyset(&set);
      ::sigaddset(&set, SIGWINCH);
      ::sigaddset(&set, SIGTSTP);
      ::pthread_sigmask(SIG_BLOCK, &set, &_before);
   }
   ~RedrawSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
   RedrawSignalsBlocked(const RedrawSignalsBlocked&) = delete;
   RedrawSignalsBlocked& operator=(const RedrawSignalsBlocked&) = delete;

   const sigset_t& GetMaskBefore() const { return _before; }

private:
   sigset_t _before;
};

} // namespace

void EndOnSignals()
{
   SetHandler(SIGINT, OnStop, SA_RESTART);
   SetHandler(SIGTERM, OnStop, SA_RESTART);
}

Screen::Screen(Output& output) : _output(output), _hasKeys(::isatty(STDIN_FILENO) == 1)
{
   if (!_output.IsTerminal()) {
      throw Corvax::PlatformException("use standard output as a screen", ENOTTY);
   }
   g_hasTermios = _hasKeys && ::tcgetattr(STDIN_FILENO, &g_termiosBefore) == 0 ? 1 : 0;
   g_termiosInUse = g_termiosBefore;
   g_termiosInUse.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO); // Ctrl-C stays a signal
   g_termiosInUse.c_cc[VMIN] = 1;
   g_termiosInUse.c_cc[VTIME] = 0;
   SetHandlers(true);
   EnterTerminal();
}

Screen::~Screen()
{
   LeaveTerminal();
   SetHandlers(false);
}

Screen::Size Screen::GetSize() const
{
   winsize size = {};
   if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
      return {80, 24};
   }
   return {size.ws_col, size.ws_row};
}

void Screen::Show(const std::vector<std::string>& lines)
{
   const Size size = GetSize();
   std::string text = "\x1b[H";
   const size_t count = std::min(lines.size(), size.lines);
   for (size_t i = 0; i < count; ++i) {
      const std::string line = Console::CutToColumns(lines[i], size.columns);
      text += line;
      // After a full line the cursor is still on its last character: clearing would erase it.
      text += Console::CountColumns(line) < size.columns ? "\x1b[K" : "";
      text += i + 1 < size.lines ? "\r\n" : ""; // after the last line it would scroll
   }
   if (count < size.lines) {
      text += "\x1b[J";
   }
   _output.Write(text);
}

Screen::Event Screen::Wait(int64_t timeoutMs)
{
   const RedrawSignalsBlocked blocked;
   if (g_isResized == 0) {
      const int64_t ms = std::max<int64_t>(timeoutMs, 0);
      const timespec timeout = {static_cast<time_t>(ms / 1000),
                                static_cast<long>(ms % 1000 * kNanosecondsPerMillisecond)};
      pollfd keys = {_hasKeys ? STDIN_FILENO : -1, POLLIN, 0};
      if (::ppoll(&keys, 1, &timeout, &blocked.GetMaskBefore()) > 0) {
         char key = 0;
         if (::read(STDIN_FILENO, &key, 1) == 1) {
            return {false, key};
         }
         _hasKeys = false;
      }
   }
   const bool isResize = g_isResized != 0;
   g_isResized = 0;
   return {isResize, 0};
}

} // namespace Agentctl
