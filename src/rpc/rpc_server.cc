#include "rpc/rpc_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <system_error>

#include "rpc/frame.h"
#include "rpc/socket_io.h"

namespace kandb::kanrpc {

namespace {

constexpr int kListenBacklog = 256;
// The most of its response buffer that a connection keeps between requests.
constexpr std::size_t kKeptResponseSize = std::size_t{64} << 10;  // bytes
// Descriptors kept free for the storage engine's files. Accepting up to the limit would make accept
// fail, which ends the server.
constexpr int kReservedDescriptors = 64;
// Of a connection's thread. The deepest path, a handler with the engine below it, takes a few KiB;
// sanitizers multiply that. With the usual 8 MiB, thousands of connections would exceed limits on
// address space.
constexpr std::size_t kConnectionStackSize = std::size_t{256} << 10;  // bytes

void SetFlag(int socket, int level, int option) {
  const int on = 1;
  // Neither SO_REUSEADDR nor TCP_NODELAY can fail on a TCP socket, and correctness needs neither.
  (void)::setsockopt(socket, level, option, &on, sizeof(on));
}

// The lowest descriptor at which a connection is refused. The system hands out the lowest free one,
// so a descriptor this high means that almost all are in use.
int FirstRefusedDescriptor() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return std::numeric_limits<int>::max();
  const rlim_t highest = std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<int>::max());
  const int descriptors = static_cast<int>(highest);
  return descriptors - std::min(kReservedDescriptors, descriptors / 4);
}

// Owns the attributes for a new thread.
class ThreadAttributes {
 public:
  ThreadAttributes() {
    Check(::pthread_attr_init(&attributes));
    (void)::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    (void)::pthread_attr_setstacksize(&attributes, kConnectionStackSize);
  }
  ~ThreadAttributes() { (void)::pthread_attr_destroy(&attributes); }
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;

  static void Check(int error) {
    if (error != 0) throw std::system_error(error, std::generic_category());
  }

  pthread_attr_t attributes;
};

// Runs `body` in a detached thread with a small stack, which std::thread cannot have. Throws
// std::system_error or std::bad_alloc when there is no thread or no memory for it.
template <class Body>
void StartDetached(Body body) {
  const ThreadAttributes attributes;
  auto owned_body = std::make_unique<Body>(std::move(body));
  const auto run = [](void* argument) -> void* {
    const std::unique_ptr<Body> thread_body(static_cast<Body*>(argument));
    (*thread_body)();
    return nullptr;
  };
  pthread_t thread{};
  ThreadAttributes::Check(::pthread_create(&thread, &attributes.attributes, run, owned_body.get()));
  (void)owned_body.release();  // the thread has it now
}

Status BindFailure(const std::string& bind_addr, int port, int error) {
  return Status::Corruption("bind " + bind_addr + ":" + std::to_string(port) +
                            " failed: " + ErrnoText(error));
}

}  // namespace

class RpcServer::HandlerAdmission {
 public:
  // Counts the handler before it reads `stopping`; Stop sets `stopping` before it reads the count.
  // In the single total order of these operations at least one sees the other.
  explicit HandlerAdmission(Shared* server) : shared(server) {
    shared->running_handlers.fetch_add(1);
    admitted = !shared->stopping.load();
  }
  ~HandlerAdmission() {
    shared->running_handlers.fetch_sub(1);
    if (shared->stopping.load()) shared->running_handlers.notify_all();
  }
  HandlerAdmission(const HandlerAdmission&) = delete;
  HandlerAdmission& operator=(const HandlerAdmission&) = delete;

  bool admitted;

 private:
  Shared* shared;
};

RpcServer::RpcServer(int write_timeout_ms) : shared(std::make_shared<Shared>(write_timeout_ms)) {}

RpcServer::~RpcServer() { Stop(); }

void RpcServer::SetHandler(const std::string& method, Handler handler) {
  shared->methods[method] = std::move(handler);
}

Status RpcServer::Start(int port, const std::string& bind_addr) {
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return Status::Corruption("socket() failed");
  SetFlag(socket.get(), SOL_SOCKET, SO_REUSEADDR);

  sockaddr_in address{};
  address.sin_family = AF_INET;
  if (::inet_pton(AF_INET, bind_addr.c_str(), &address.sin_addr) != 1) {
    return Status::InvalidArgument("invalid IPv4 bind address: " + bind_addr);
  }
  // Narrowed to the 16 bits of the address, it would name another port.
  if (port < 0 || port > std::numeric_limits<std::uint16_t>::max()) {
    return BindFailure(bind_addr, port, EINVAL);
  }
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  auto* raw_address = reinterpret_cast<sockaddr*>(&address);
  if (::bind(socket.get(), raw_address, sizeof(address)) != 0) {
    return BindFailure(bind_addr, port, errno);
  }
  socklen_t address_size = sizeof(address);
  if (::listen(socket.get(), kListenBacklog) != 0 ||
      ::getsockname(socket.get(), raw_address, &address_size) != 0) {
    return Status::Corruption("listen failed");
  }

  listen_socket = std::move(socket);
  bound_port = ntohs(address.sin_port);
  MutexLock lock(&accept_mutex);
  accept_thread = std::thread([this] { AcceptLoop(); });
  return {};
}

void RpcServer::Wait() {
  MutexLock lock(&accept_mutex);
  if (accept_thread.joinable()) accept_thread.join();
}

void RpcServer::Stop() {
  bool running = false;
  if (!shared->stopping.compare_exchange_strong(running, true)) return;
  // The shutdown makes a waiting accept fail. The descriptor is closed only after the thread has
  // ended: until then its number must not be reused for another file.
  if (listen_socket.valid()) ::shutdown(listen_socket.get(), SHUT_RDWR);
  Wait();
  listen_socket.Reset();
  while (const int running_handlers = shared->running_handlers.load()) {
    shared->running_handlers.wait(running_handlers);
  }
}

void RpcServer::AcceptLoop() {
  const int first_refused = FirstRefusedDescriptor();
  while (!shared->stopping.load()) {
    UniqueFd connection(::accept4(listen_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.valid()) {
      if (errno == EINTR) continue;
      return;
    }
    if (connection.get() >= first_refused) {
      // accept chose this number before it waited; a lower one may be free by now. The connection
      // moves there, so that the reserved ones stay free.
      connection = UniqueFd(::fcntl(connection.get(), F_DUPFD_CLOEXEC, 0));
      if (!connection.valid() || connection.get() >= first_refused) continue;
    }
    SetFlag(connection.get(), IPPROTO_TCP, TCP_NODELAY);
    try {
      StartDetached([connection = std::move(connection), state = shared]() mutable {
        Serve(std::move(connection), state);
      });
    } catch (const std::exception&) {
      // No thread or no memory for it: its owner closes the connection, the server continues.
    }
  }
}

void RpcServer::Serve(UniqueFd connection, const std::shared_ptr<Shared>& shared) try {
  FrameReader reader(connection.get());
  std::string response;
  while (!shared->stopping.load()) {
    Frame request;
    if (!reader.Read(&request, -1).ok()) return;
    if (!Answer(shared.get(), request.method, request.request_id, request.payload, &response)) {
      return;
    }
    if (!WriteAll(connection.get(), response, shared->write_timeout_ms).ok()) return;
    if (response.capacity() > kKeptResponseSize) std::string().swap(response);
  }
} catch (const std::exception&) {
  // Out of memory, for example: this connection closes, the others continue.
}

bool RpcServer::Answer(Shared* shared, std::string_view method, std::uint64_t request_id,
                       std::string_view payload, std::string* response) {
  const auto found = shared->methods.find(method);
  if (found == shared->methods.end()) {
    BeginFrame(kError, request_id, method, response);
    response->append("unknown method: ").append(method);
    FinishFrame(response);
    return true;
  }

  // The handler appends its payload to the frame begun here, so that no byte is copied twice.
  BeginFrame(kResponse, request_id, method, response);
  Status status;
  {
    const HandlerAdmission admission(shared);
    if (!admission.admitted) return false;
    status = found->second(payload, response);
  }
  if (status.ok() && response->size() - PayloadOffset(method) > kMaxPayloadSize) {
    status = PayloadTooLarge();
  }
  if (!status.ok()) {
    BeginFrame(kError, request_id, method, response);
    response->append(status.ToString());
  }
  FinishFrame(response);
  return true;
}

}  // namespace kandb::kanrpc
