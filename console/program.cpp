#include "console/program.h"

#include "console/printable.h"
#include "console/version.h"
#include "corvax/exception.h"
#include "corvax/format.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <iostream>

namespace Console {

using Corvax::Format;

void PrintError(std::string_view program, std::string_view message)
{
   std::cerr << Format("%1: %2\n", program, Printable(message));
}

std::optional<int> ParseOptions(CLI::App& app, int argc, const char* const* argv)
{
   const std::string program = app.get_name();
   app.set_version_flag("--version", program + " " + kVersion);
   try {
      app.parse(argc, argv);
   } catch (const CLI::Success& e) {
      return app.exit(e);
   } catch (const CLI::ParseError& e) {
      PrintError(program, Format("%1 (%2 --help lists the options)", e.what(), program));
      return kExitUsage;
   }
   return std::nullopt;
}

CLI::Validator AtLeast(int64_t least)
{
   const auto check = [least](const std::string& text) {
      int64_t number = 0;
      const bool isNumber = CLI::detail::lexical_cast(text, number);
      return isNumber && number >= least
                ? std::string()
                : Format("'%1' is not an integer of at least %2", text, least);
   };
   return CLI::Validator(check, "");
}

int Run(std::string_view program, const std::function<int()>& work)
{
   Corvax::OutOfMemoryException::InstallNewHandler();
   std::signal(SIGPIPE, SIG_IGN);
   std::signal(SIGXFSZ, SIG_IGN);
   try {
      return work();
   } catch (const Corvax::Exception& e) { // out of memory is not caught as std::exception
      PrintError(program, e.GetMessage());
   } catch (const std::exception& e) {
      PrintError(program, e.what());
   }
   return kExitFailure;
}

} // namespace Console
