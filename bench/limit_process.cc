#include "limit_process.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "contestant.h"
#include "rpc/frame.h"
#include "rpc/socket_io.h"

namespace kandb::bench {

namespace {

void ServeEcho(const UniqueFd& connection) {
  EchoProcess::Sizes sizes{};
  if (::recv(connection.get(), &sizes, sizeof(sizes), MSG_WAITALL) != sizeof(sizes)) return;
  std::string request(sizes.request, '\0');
  const std::string response(sizes.response, 'r');
  while (::recv(connection.get(), request.data(), request.size(), MSG_WAITALL) ==
             static_cast<ssize_t>(request.size()) &&
         kanrpc::WriteAll(connection.get(), response, -1).ok()) {
  }
}

}  // namespace

LimitProcess::LimitProcess(const std::function<Serve()>& start) {
  const UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = testing::Loopback(0);
  socklen_t size = sizeof(address);
  auto* const raw_address = reinterpret_cast<sockaddr*>(&address);
  Check(::bind(listener.get(), raw_address, size) == 0 && ::listen(listener.get(), 256) == 0 &&
            ::getsockname(listener.get(), raw_address, &size) == 0,
        "cannot listen");
  listen_port = ntohs(address.sin_port);
  child = ::fork();
  if (child != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const Serve serve = start();
  for (;;) {
    UniqueFd connection(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const int on = 1;
    ::setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    std::thread([&serve, fd = connection.release()] { serve(UniqueFd(fd)); }).detach();
  }
}

LimitProcess::~LimitProcess() {
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

EchoProcess::EchoProcess() : LimitProcess([] { return ServeEcho; }) {}

Exchange EchoProcess::MakeExchange(const Sizes& sizes) const {
  struct Client {
    explicit Client(int port) : connection(port) {}
    RawConnection connection;
    std::string request;
    std::string response;
  };
  const auto client = std::make_shared<Client>(port());
  client->request.assign(sizes.request, 'q');
  client->response.assign(sizes.response, '\0');
  Check(client->connection.Send({reinterpret_cast<const char*>(&sizes), sizeof(sizes)}), "echo");
  return [client] {
    std::string& response = client->response;
    Check(client->connection.Send(client->request) &&
              ::recv(client->connection.fd(), response.data(), response.size(), MSG_WAITALL) ==
                  static_cast<ssize_t>(response.size()),
          "echo");
  };
}

LimitProcess::Serve GroupCommitProcess::Start() const {
  const std::shared_ptr<Contestant> log = OpenRawLog({.directory = directory.path(), .sync = true});
  return [log](const UniqueFd& connection) {
    kanrpc::FrameReader requests(connection.get());
    const std::string payload = Encode(pdpb::UpsertRegionResponse());
    for (kanrpc::Frame request; requests.Read(&request, -1).ok();) {
      log->Put("", request.payload);
      const std::string answer =
          kanrpc::BuildFrame(kanrpc::kResponse, request.request_id, request.method, payload);
      if (!kanrpc::WriteAll(connection.get(), answer, -1).ok()) return;
    }
  };
}

}  // namespace kandb::bench
