#pragma once

#include "agentctl/output.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Agentctl {

/// Makes SIGINT and SIGTERM end the process at once with status 0: they are how a watch ends.
void EndOnSignals();

/// The terminal as one full screen that is drawn again and again, with single keys.
///
/// Whatever ends the process while a screen exists gives the terminal back as it was: the
/// destructor; SIGINT and SIGTERM, which end with status 0 at once, a request under way included;
/// SIGHUP and SIGQUIT, which end as ever. SIGTSTP gives it back for as long as the process is
/// stopped. There is one screen at a time.
class Screen {
public:
   struct Size {
      size_t columns;
      size_t lines;
   };
   struct Event {
      bool isResize = false; ///< or continued after a stop: to be drawn anew
      char key = 0;          ///< 0: none came
   };

   /// Keeps a reference. PlatformException where standard output is no terminal.
   explicit Screen(Output& output);
   ~Screen();
   Screen(const Screen&) = delete;
   Screen& operator=(const Screen&) = delete;

   /// As it is now; 80 by 24 where the terminal does not say.
   Size GetSize() const;

   /// Shows the lines, which are printable, in place of what is there; what does not fit is cut.
   void Show(const std::vector<std::string>& lines);

   /// Waits for a key or a change of the size, at most so long.
   Event Wait(int64_t atMostMs);

private:
   Output& _output;
   bool _hasKeys; ///< standard input is a terminal that has not ended
};

} // namespace Agentctl
