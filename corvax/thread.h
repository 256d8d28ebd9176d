#pragma once

#include <functional>
#include <stop_token>
#include <string>
#include <thread>

namespace Corvax {

/// Starts a thread under the name that the system shows it by (at most 15 characters). Its end is
/// asked for through the token; the destructor asks and waits.
std::jthread StartThread(const std::string& name, std::function<void(std::stop_token)> body);

} // namespace Corvax
