// The limit of a server with a thread for each connection: a process that only receives requests of
// one size and sends answers of another, with one recv and one send each.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>
#include <thread>

#include "bench_program.h"
#include "common/posix_file.h"
#include "rpc/socket_io.h"

namespace kandb::bench {

class EchoProcess {
 public:
  // A client sends this first.
  struct Sizes {
    std::uint32_t request;   // bytes, at least 1
    std::uint32_t response;  // bytes
  };

  // Before this process starts its first thread.
  EchoProcess() {
    const UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const raw_address = reinterpret_cast<sockaddr*>(&address);
    Check(::bind(listener.get(), raw_address, size) == 0 && ::listen(listener.get(), 256) == 0 &&
              ::getsockname(listener.get(), raw_address, &size) == 0,
          "cannot listen");
    listen_port = ntohs(address.sin_port);
    child = ::fork();
    if (child != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
      const int connection = ::accept(listener.get(), nullptr, nullptr);
      std::thread([connection] { Serve(UniqueFd(connection)); }).detach();
    }
  }
  ~EchoProcess() {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  EchoProcess(const EchoProcess&) = delete;
  EchoProcess& operator=(const EchoProcess&) = delete;

  int port() const { return listen_port; }
  pid_t pid() const { return child; }

 private:
  static void Serve(UniqueFd connection) {
    const int on = 1;
    ::setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    Sizes sizes{};
    if (::recv(connection.get(), &sizes, sizeof(sizes), MSG_WAITALL) != sizeof(sizes)) return;
    std::string request(sizes.request, '\0');
    const std::string response(sizes.response, 'r');
    while (::recv(connection.get(), request.data(), request.size(), MSG_WAITALL) ==
               static_cast<ssize_t>(request.size()) &&
           kanrpc::WriteAll(connection.get(), response, -1).ok()) {
    }
  }

  int listen_port = 0;
  pid_t child = -1;
};

}  // namespace kandb::bench
