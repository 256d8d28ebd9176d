#include "agentctl/output.h"

#include "corvax/exception.h"

#include <unistd.h>

#include <cerrno>

namespace Agentctl {

namespace {

class StandardOutput : public Output {
public:
   void Write(std::string_view text) override
   {
      while (!text.empty()) {
         const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
         if (written >= 0) {
            text.remove_prefix(static_cast<size_t>(written));
         } else if (errno == EPIPE) {
            throw OutputClosed();
         } else if (errno != EINTR) {
            throw Corvax::PlatformException("write to standard output", errno);
         }
      }
   }

   bool IsTerminal() const override { return ::isatty(STDOUT_FILENO) == 1; }
};

} // namespace

std::unique_ptr<Output> NewStandardOutput()
{
   return std::make_unique<StandardOutput>();
}

} // namespace Agentctl
