#include "rpc/socket_io.h"

#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

namespace kandb::kanrpc {

namespace {

Status WaitFor(int socket, short event, int timeout_ms) {
  for (;;) {
    pollfd waited{.fd = socket, .events = event, .revents = 0};
    const int ready = ::poll(&waited, 1, timeout_ms);
    if (ready > 0) return {};
    if (ready == 0) return Status::Corruption("kanrpc: io timeout");
    const int error = errno;
    if (error != EINTR) return Status::Corruption("kanrpc poll: " + ErrnoText(error));
  }
}

// Connects a non-blocking socket.
bool Connect(int socket, const addrinfo& address, int timeout_ms) {
  if (::connect(socket, address.ai_addr, address.ai_addrlen) == 0) return true;
  // A signal does not end the attempt: it continues asynchronously.
  if (errno != EINPROGRESS && errno != EINTR) return false;
  if (!WaitFor(socket, POLLOUT, timeout_ms).ok()) return false;
  int error = 0;
  socklen_t size = sizeof(error);
  return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

// Runs `call(flags)`, a send or recv, until it moves bytes or fails for good.
template <class Call>
Status Transfer(int socket, short event, int timeout_ms, Call call, std::size_t* count) {
  // With a time-out the call itself must not block. It comes before the poll, because it usually
  // succeeds and saves one.
  const int flags = timeout_ms < 0 ? 0 : MSG_DONTWAIT;
  for (;;) {
    const ssize_t moved = call(flags);
    if (moved > 0) {
      *count = static_cast<std::size_t>(moved);
      return {};
    }
    if (moved == 0) return Status::NotFound("kanrpc: connection closed");
    const int error = errno;
    if (error == EINTR) continue;
    if (error != EAGAIN) return Status::Corruption("kanrpc io: " + ErrnoText(error));
    if (timeout_ms < 0) continue;
    if (Status s = WaitFor(socket, event, timeout_ms); !s.ok()) return s;
  }
}

}  // namespace

UniqueFd ConnectToFirst(const addrinfo* addresses, int timeout_ms) {
  for (const addrinfo* at = addresses; at != nullptr; at = at->ai_next) {
    const int type = at->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK;
    UniqueFd socket(::socket(at->ai_family, type, at->ai_protocol));
    if (!socket.valid() || !Connect(socket.get(), *at, timeout_ms)) continue;
    // Transfers without a time-out rely on calls that block.
    int off = 0;
    if (::ioctl(socket.get(), FIONBIO, &off) == 0) return socket;
  }
  return UniqueFd();
}

Status WriteAll(int socket, std::string_view bytes, int timeout_ms) {
  while (!bytes.empty()) {
    std::size_t sent = 0;
    const auto send_rest = [&](int flags) {
      return ::send(socket, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
    };
    if (Status s = Transfer(socket, POLLOUT, timeout_ms, send_rest, &sent); !s.ok()) return s;
    bytes.remove_prefix(sent);
  }
  return {};
}

Status ReadSome(int socket, char* buffer, std::size_t capacity, int timeout_ms,
                std::size_t* count) {
  const auto receive = [&](int flags) { return ::recv(socket, buffer, capacity, flags); };
  return Transfer(socket, POLLIN, timeout_ms, receive, count);
}

}  // namespace kandb::kanrpc
