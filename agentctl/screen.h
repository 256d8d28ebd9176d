#pragma once

#include "agentctl/output.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Agentctl {

/// Makes SIGINT and SIGTERM end the process immediately with status 0, as the normal end of a
/// watch.
void EndOnSignals();

/// The terminal in full-screen mode: shows whole screens and reads single keys.
///
/// The destructor restores the terminal, and so do signals that end the process: SIGINT and SIGTERM
/// end it immediately with status 0, even during a request; SIGHUP and SIGQUIT act as usual. While
/// SIGTSTP stops the process, the terminal is restored, too. Invariant: at most one screen exists.
class Screen {
public:
   struct Size {
      size_t columns;
      size_t lines;
   };
   struct Event {
      bool isResize = false; ///< or continued after a stop: redraw
      char key = 0;          ///< 0: none
   };

   /// Keeps a reference. PlatformException if standard output is not a terminal.
   explicit Screen(Output& output);
   ~Screen();
   Screen(const Screen&) = delete;
   Screen& operator=(const Screen&) = delete;

   /// The current size; 80 by 24 if the terminal does not report one.
   Size GetSize() const;

   /// Replaces the contents by these lines, which must be printable; cuts off what does not fit.
   void Show(const std::vector<std::string>& lines);

   /// Waits for a key or a change of the size; a negative time is 0.
   Event Wait(int64_t timeoutMs);

private:
   Output& _output;
   bool _hasKeys; ///< standard input is a terminal and has not ended
};

} // namespace Agentctl
