// The server that a command line names, and why it cannot be reached.
#pragma once

#include <cstdint>
#include <string>

namespace kandb::ctl {

// What is wrong with a HOST:PORT; empty when nothing is. Looks nothing up.
std::string WrongServerAddress(const std::string& text);

// Tries the addresses of a server that could not be connected to once more and says why it cannot.
// Waits for each at most `timeout_ms`, but no longer than a second.
std::string WhyUnreachable(const std::string& server, std::int32_t timeout_ms);

}  // namespace kandb::ctl
