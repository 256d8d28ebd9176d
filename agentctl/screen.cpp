#include "agentctl/screen.h"

#include "agentctl/printable.h"

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

/// Alternate screen, no cursor, no wrapping; and back.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J";
constexpr std::string_view kLeave = "\x1b[?7h\x1b[?25h\x1b[?1049l";

// What the signal handlers need. They call only what may be called in one.
termios g_termiosBefore;
termios g_termiosInUse;
volatile sig_atomic_t g_hasTermios = 0;
volatile sig_atomic_t g_isEntered = 0;
volatile sig_atomic_t g_isResized = 0;

void WriteRaw(std::string_view text)
{
   // The terminal may be gone: there is nobody left to tell.
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

/// The handler was set for one time only, so that the signal now does what it does by itself.
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
   ::sigfillset(&action.sa_mask); // one handler at a time
   ::sigaction(signal, &action, nullptr);
}

/// Handlers of all that touches the terminal, or none.
void SetHandlers(bool set)
{
   for (const int signal : {SIGINT, SIGTERM}) {
      SetHandler(signal, set ? OnStop : SIG_DFL, SA_RESTART);
   }
   for (const int signal : {SIGHUP, SIGQUIT}) {
      SetHandler(signal, set ? OnDeath : SIG_DFL, static_cast<int>(SA_RESETHAND));
   }
   SetHandler(SIGTSTP, set ? OnSuspend : SIG_DFL, SA_RESTART);
   SetHandler(SIGWINCH, set ? OnResize : SIG_DFL, SA_RESTART);
}

/// Holds the redraw signals back, so that none slips in between a look at the flag and the wait.
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
      const std::string line = CutToColumns(lines[i], size.columns);
      text += line;
      // Behind a full line the cursor stands on its last character, which would be cleared, too.
      text += CountColumns(line) < size.columns ? "\x1b[K" : "";
      text += i + 1 < size.lines ? "\r\n" : ""; // behind the last line it would scroll
   }
   if (count < size.lines) {
      text += "\x1b[J";
   }
   _output.Write(text);
}

Screen::Event Screen::Wait(int64_t atMostMs)
{
   const RedrawSignalsBlocked blocked;
   if (g_isResized == 0) {
      const int64_t ms = std::max<int64_t>(atMostMs, 0);
      const timespec timeout = {static_cast<time_t>(ms / 1000),
                                static_cast<long>(ms % 1000 * 1000000)};
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
