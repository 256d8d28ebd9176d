#pragma once

#include <functional>
#include <stop_token>
#include <string>
#include <thread>

namespace Corvax {

/// Starts a thread under the name that the system shows for it (at most 15 characters). The token
/// is its request to stop; the destructor of the result makes that request and waits for the end.
std::jthread StartThread(const std::string& name, std::function<void(std::stop_token)> body);

} // namespace Corvax
