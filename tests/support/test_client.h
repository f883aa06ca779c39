// A small blocking client for loopback: one connection, calls answered in order, and raw bytes for
// the tests that misbehave.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <string_view>

#include "common/posix_file.h"
#include "pdpb/messages.h"
#include "rpc/frame.h"
#include "rpc/socket_io.h"

namespace kandb::testing {

class TestClient {
 public:
  explicit TestClient(int port) : socket(Connect(port)), reader(socket.get()) {}

  int fd() const { return socket.get(); }
  bool Send(std::string_view bytes) { return kanrpc::WriteAll(fd(), bytes, kTimeoutMs).ok(); }
  Status Read(kanrpc::Frame* frame) { return reader.Read(frame, kTimeoutMs); }

  // The payload of the answer; a failure for an error frame, with its text, and for a broken
  // connection.
  Status Call(const std::string& method, std::string_view payload, std::string* answer) {
    const std::uint64_t id = ++last_id;
    if (Status s = kanrpc::WriteAll(fd(), kanrpc::BuildFrame(kanrpc::kRequest, id, method, payload),
                                    kTimeoutMs);
        !s.ok()) {
      return s;
    }
    kanrpc::Frame frame;
    if (Status s = Read(&frame); !s.ok()) return s;
    if (frame.request_id != id || frame.method != method) return Status::Corruption("wrong answer");
    if (frame.type == kanrpc::kError) return {kRemoteError, std::string(frame.payload)};
    *answer = frame.payload;
    return {};
  }

  template <pdpb::Message Resp, pdpb::Message Req>
  Status Call(const std::string& method, const Req& request, Resp* response) {
    std::string answer;
    if (Status s = Call(method, std::string_view(Encode(request)), &answer); !s.ok()) return s;
    *response = Resp();
    return Decode(answer, response) ? Status() : Status::Corruption("undecodable answer");
  }

  static constexpr std::uint32_t kRemoteError = 100;  // code of a failure that the server reported
  static constexpr int kTimeoutMs = 60000;

 private:
  static UniqueFd Connect(int port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      fd.Reset();
    }
    return fd;
  }

  UniqueFd socket;
  kanrpc::FrameReader reader;
  std::uint64_t last_id = 0;
};

}  // namespace kandb::testing
