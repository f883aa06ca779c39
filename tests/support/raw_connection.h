// A connection to a server on this machine, for tests that speak frames and bytes themselves.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string_view>

#include "common/posix_file.h"
#include "rpc/frame.h"
#include "rpc/socket_io.h"

namespace kandb::testing {

inline sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A socket on a free port of this machine, which `*address` then names.
inline UniqueFd BindLoopback(sockaddr_in* address) {
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  *address = Loopback(0);
  socklen_t size = sizeof(*address);
  auto* raw_address = reinterpret_cast<sockaddr*>(address);
  EXPECT_EQ(::bind(socket.get(), raw_address, size), 0);
  EXPECT_EQ(::getsockname(socket.get(), raw_address, &size), 0);
  return socket;
}

class RawConnection {
 public:
  explicit RawConnection(int port) : socket(Connect(port)), reader(socket.get()) {}

  int fd() const { return socket.get(); }
  bool Send(std::string_view bytes) { return kanrpc::WriteAll(fd(), bytes, kTimeoutMs).ok(); }
  Status Read(kanrpc::Frame* frame) { return reader.Read(frame, kTimeoutMs); }

  // Sends a request without payload; whether anything answers.
  bool Answers() {
    kanrpc::Frame frame;
    return Send(kanrpc::BuildFrame(kanrpc::kRequest, 1, "any", "")) && Read(&frame).ok();
  }

 private:
  static constexpr int kTimeoutMs = 60000;

  static UniqueFd Connect(int port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = Loopback(port);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      fd.Reset();
    }
    return fd;
  }

  UniqueFd socket;
  kanrpc::FrameReader reader;
};

}  // namespace kandb::testing
