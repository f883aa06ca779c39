#include "kandb_ctl/server_address.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>

#include "common/posix_file.h"

namespace kandb::ctl {

namespace {

constexpr int kLongestTryMs = 1000;

// 0 when the address accepts a connection.
int ConnectError(const addrinfo& address, int timeout_ms) {
  const UniqueFd socket(::socket(
      address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
  if (!socket.valid()) return errno;
  if (::connect(socket.get(), address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  pollfd wanted{socket.get(), POLLOUT, 0};
  if (::poll(&wanted, 1, timeout_ms) == 0) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof(error);
  return ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

}  // namespace

std::string WrongServerAddress(const std::string& text) {
  const auto wrong = [&](const char* what) { return "'" + text + "' is not HOST:PORT: " + what; };
  const std::size_t colon = text.rfind(':');
  const bool bracketed = text.starts_with('[');
  if (colon == text.npos || text.ends_with(']')) return wrong("there is no port");
  const std::string host = text.substr(0, colon);
  if (host.empty() || host == "[]") return wrong("there is no host");
  if (bracketed != host.ends_with(']')) return wrong("a bracket is missing");
  if (!bracketed && host.find(':') != host.npos) {
    return wrong("an IPv6 address is put in brackets, and a port follows");
  }
  std::uint16_t port = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
  if (error != std::errc() || stop != end || port == 0) {
    return wrong("the port is not a number from 1 to 65535");
  }
  return "";
}

std::string WhyUnreachable(const std::string& server, std::int32_t timeout_ms) {
  const std::size_t colon = server.rfind(':');
  std::string host = server.substr(0, colon);
  if (host.starts_with('[')) host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int failure = ::getaddrinfo(host.c_str(), server.c_str() + colon + 1, &hints, &found);
  if (failure != 0) return failure == EAI_SYSTEM ? ErrnoText(errno) : ::gai_strerror(failure);
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, ::freeaddrinfo);
  if (timeout_ms < 0) timeout_ms = kLongestTryMs;
  std::string reasons;
  for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
    const int error = ConnectError(*at, std::min(timeout_ms, kLongestTryMs));
    const std::string reason = error == 0 ? "it accepts a connection now" : ErrnoText(error);
    if (reasons.find(reason) != reasons.npos) continue;  // several addresses, one reason
    if (!reasons.empty()) reasons += ", ";
    reasons += reason;
  }
  return reasons;
}

}  // namespace kandb::ctl
