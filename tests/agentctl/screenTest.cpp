#include "agentctl/screen.h"

#include <gtest/gtest.h>

#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>

namespace {

using namespace Agentctl;

constexpr tcflag_t kLineFlags = ECHO | ICANON;

/// A screen in a process and on a terminal of its own. Waits have no end of their own: one that is
/// in vain ends with the test's time. It draws its width; the key q ends it with
/// status 3.
class ScreenProcess {
public:
   ScreenProcess()
   {
      winsize size = GetWindowSize(30);
      _pid = ::forkpty(&_terminal, nullptr, nullptr, &size);
      if (_pid == 0) {
         ::_exit(RunChild());
      }
   }
   ~ScreenProcess()
   {
      if (!_hasEnded) {
         ::kill(_pid, SIGKILL);
         ::waitpid(_pid, nullptr, 0);
      }
      ::close(_terminal);
   }
   ScreenProcess(const ScreenProcess&) = delete;
   ScreenProcess& operator=(const ScreenProcess&) = delete;

   void Signal(int signal) { ::kill(_pid, signal); }
   void Type(char key) { EXPECT_EQ(::write(_terminal, &key, 1), 1); }
   void Resize(unsigned short columns)
   {
      const winsize size = GetWindowSize(columns);
      ::ioctl(_terminal, TIOCSWINSZ, &size);
   }
   /// Reads up to the text; false if the process ends before.
   bool Expect(const std::string& text)
   {
      std::string seen;
      char bytes[256];
      while (seen.find(text) == std::string::npos) {
         const ssize_t length = ::read(_terminal, bytes, sizeof bytes);
         if (length <= 0) {
            return false;
         }
         seen.append(bytes, static_cast<size_t>(length));
      }
      return true;
   }
   /// Those of kLineFlags that are set.
   tcflag_t GetLineFlags() const
   {
      termios now = {};
      ::tcgetattr(_terminal, &now);
      return now.c_lflag & kLineFlags;
   }
   /// Waits until the process ends, or with WUNTRACED stops.
   int WaitForStatus(int options = 0)
   {
      int status = -1;
      EXPECT_EQ(::waitpid(_pid, &status, options), _pid);
      _hasEnded = WIFEXITED(status) || WIFSIGNALED(status);
      return status;
   }

private:
   static winsize GetWindowSize(unsigned short columns)
   {
      winsize size = {};
      size.ws_col = columns;
      size.ws_row = 5;
      return size;
   }

   static int RunChild()
   {
      const auto standardOutput = NewStandardOutput();
      Screen screen(*standardOutput);
      while (true) {
         screen.Show({"columns=" + std::to_string(screen.GetSize().columns) + ";"});
         if (screen.Wait(INT32_MAX).key == 'q') {
            return 3;
         }
      }
   }

   int _terminal = -1;
   pid_t _pid = -1;
   bool _hasEnded = false;
};

constexpr char kLeave[] = "\x1b[?1049l";

TEST(ScreenTest, RestoresTheTerminalForEverySignalThatEndsIt)
{
   for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
      ScreenProcess process;
      ASSERT_TRUE(process.Expect("columns=30;"));
      EXPECT_EQ(process.GetLineFlags(), 0U);
      process.Signal(signal);
      EXPECT_TRUE(process.Expect(kLeave)) << signal;
      const int status = process.WaitForStatus();
      EXPECT_EQ(process.GetLineFlags(), kLineFlags) << signal;
      if (signal == SIGINT || signal == SIGTERM) {
         EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << signal;
      } else {
         EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << signal;
      }
   }
}

TEST(ScreenTest, FollowsResizesAndStops)
{
   ScreenProcess process;
   ASSERT_TRUE(process.Expect("columns=30;"));
   process.Resize(40);
   EXPECT_TRUE(process.Expect("columns=40;"));
   process.Resize(8);
   EXPECT_TRUE(process.Expect("columns…"));
   process.Signal(SIGTSTP);
   EXPECT_TRUE(process.Expect(kLeave));
   EXPECT_TRUE(WIFSTOPPED(process.WaitForStatus(WUNTRACED)));
   EXPECT_EQ(process.GetLineFlags(), kLineFlags);
   process.Signal(SIGCONT);
   EXPECT_TRUE(process.Expect("columns…"));
   EXPECT_EQ(process.GetLineFlags(), 0U);
   process.Type('q');
   EXPECT_TRUE(process.Expect(kLeave));
   const int status = process.WaitForStatus();
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
   EXPECT_EQ(process.GetLineFlags(), kLineFlags);
}

} // namespace
