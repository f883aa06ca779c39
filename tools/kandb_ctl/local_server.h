// A server on this machine, as the kernel lists it: its process and its state directory.
#pragma once

#include <optional>
#include <string>

namespace kandb::ctl {

// The id of the process that has locked the directory.
std::optional<std::string> LockHolder(const std::string& dir);

// The directory that is locked by the process that listens on the port of `server`, HOST:PORT. None
// for a host that is not localhost or 127.*, and when the process cannot be looked into: only root
// and its own user may.
std::optional<std::string> FindDataDir(const std::string& server);

}  // namespace kandb::ctl
