#include "rpc/rpc_client.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cassert>
#include <chrono>
#include <thread>
#include <utility>

#include "rpc/socket_io.h"

namespace kandb::kanrpc {

namespace {

constexpr std::chrono::milliseconds kFirstPause{20};  // grows by this much with every attempt

using AddressList = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

// The addresses of "host:port" or "[host]:port"; none when the text or the name does not resolve.
AddressList Resolve(const std::string& target) {
  AddressList addresses(nullptr, ::freeaddrinfo);
  const std::size_t colon = target.rfind(':');
  if (colon == std::string::npos) return addresses;
  std::string host = target.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), target.c_str() + colon + 1, &hints, &found) == 0) {
    addresses.reset(found);
  }
  return addresses;
}

}  // namespace

RpcClient::RpcClient(std::string server, const RpcClientOptions& client_options)
    : target(std::move(server)), options(client_options) {}

Status RpcClient::Call(std::string_view method, std::string_view payload, std::string* response) {
  if (method.size() > kMaxMethodSize) return Status::InvalidArgument("kanrpc: method too long");
  if (payload.size() > kMaxPayloadSize) {
    return Status::InvalidArgument("kanrpc: payload too large");
  }
  MutexLock lock(&mutex);
  for (int attempt = 1;; ++attempt) {
    Status status = socket.valid() ? Status() : Connect();
    if (status.ok()) status = CallOnce(method, payload, response);
    if (status.ok()) return status;
    // Further bytes on this connection would belong to the failed call.
    reader.reset();
    socket.Reset();
    if (attempt >= options.attempts) return status;
    std::this_thread::sleep_for(attempt * kFirstPause);
  }
}

Status RpcClient::Connect() {
  const AddressList addresses = Resolve(target);
  UniqueFd connected = ConnectToFirst(addresses.get(), options.timeout_ms);
  if (!connected.valid()) return Status::Corruption("cannot connect to " + target);
  const int on = 1;
  (void)::setsockopt(connected.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  socket = std::move(connected);
  reader.emplace(socket.get());
  return {};
}

Status RpcClient::CallOnce(std::string_view method, std::string_view payload,
                           std::string* response) {
  const std::uint64_t request_id = next_request_id++;
  const std::string request = BuildFrame(kRequest, request_id, method, payload);
  if (Status s = WriteAll(socket.get(), request, options.timeout_ms); !s.ok()) return s;
  Frame answer;
  if (Status s = reader->Read(&answer, options.timeout_ms); !s.ok()) return s;
  if (answer.request_id != request_id) return Status::Corruption("kanrpc: request id mismatch");
  if (answer.type == kError) return Status::Corruption("remote: " + std::string(answer.payload));
  if (answer.type != kResponse) return Status::Corruption("kanrpc: bad frame type");
  *response = answer.payload;
  return {};
}

RpcClientPool::RpcClientPool(const std::string& server, const RpcClientOptions& options,
                             std::size_t size) {
  assert(size >= 1);
  for (std::size_t i = 0; i < size; ++i) {
    clients.push_back(std::make_unique<RpcClient>(server, options));
  }
}

Status RpcClientPool::Call(std::string_view method, std::string_view payload,
                           std::string* response) {
  // Relaxed: only the distribution matters, not the order with other memory.
  const std::uint64_t turn = next_client.fetch_add(1, std::memory_order_relaxed);
  return clients[turn % clients.size()]->Call(method, payload, response);
}

}  // namespace kandb::kanrpc
