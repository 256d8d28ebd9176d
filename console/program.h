#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

namespace CLI {
class App;
class Validator;
} // namespace CLI

namespace Console {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

/// Prints "PROGRAM: MESSAGE" to standard error, the message made printable.
void PrintError(std::string_view program, std::string_view message);

/// Parses the command line; adds --version to the options. Returns the exit status if the process
/// has nothing more to do: after help, the version or a usage error, which are printed.
std::optional<int> ParseOptions(CLI::App& app, int argc, const char* const* argv);

/// Accepts integers that are not less than `least`.
CLI::Validator AtLeast(int64_t least);

/// Runs the program's work and returns its exit status. An exception is printed and returns
/// kExitFailure. A write to a closed pipe, or beyond the limit of a file's size, fails and does not
/// end the program by a signal.
int Run(std::string_view program, const std::function<int()>& work);

} // namespace Console
