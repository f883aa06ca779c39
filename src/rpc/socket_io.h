// Connecting, and blocking transfers over a connected stream socket, with time-outs. The socket is
// borrowed; one reader and one writer per socket. A time-out bounds each wait, not the whole
// transfer; negative waits forever.
//
// Failures of a transfer: NotFound "kanrpc: connection closed" when the peer has closed; Corruption
// for all else: "kanrpc: io timeout", "kanrpc poll: " or "kanrpc io: " and the system's error text.
#pragma once

#include <cstddef>
#include <string_view>

#include "common/posix_file.h"
#include "common/status.h"

struct addrinfo;

namespace kandb::kanrpc {

// A blocking socket that is connected to the first of `addresses`, in order, that accepts the
// connection within `timeout_ms`; invalid when none does.
UniqueFd ConnectToFirst(const addrinfo* addresses, int timeout_ms);

// Sends every byte; never raises SIGPIPE.
Status WriteAll(int socket, std::string_view bytes, int timeout_ms);

// Receives at least 1 and at most `capacity` bytes; `*count` says how many.
Status ReadSome(int socket, char* buffer, std::size_t capacity, int timeout_ms, std::size_t* count);

}  // namespace kandb::kanrpc
