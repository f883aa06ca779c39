// Serves registered methods over TCP: one accept thread and one thread for each connection. The
// requests of a connection are handled in order, those of different connections concurrently.
//
// Register and Start belong to the thread that built the server; Wait and Stop may be called from
// any.
#pragma once

#include <atomic>
#include <concepts>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "common/mutex.h"
#include "common/posix_file.h"
#include "common/status.h"

namespace kandb::kanrpc {

// What the server requires of a message type: Decode and AppendTo in the namespace of the type, so
// that this layer does not know the catalogue of messages.
template <class M>
concept DecodableMessage = std::default_initializable<M> && requires(M* message) {
  { Decode(std::string_view(), message) } -> std::same_as<bool>;
};
template <class M>
concept EncodableMessage = std::default_initializable<M> &&
    requires(const M& message, std::string* out) {
  AppendTo(message, out);
};

class RpcServer {
 public:
  // A connection is closed when its peer accepts no byte of a response for `write_timeout_ms`;
  // negative waits forever.
  explicit RpcServer(int write_timeout_ms = 30000);
  ~RpcServer();
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;

  // Binds `method` to `handler`, before Start; a later registration of the same name replaces the
  // earlier. A payload that does not decode is answered with InvalidArgument "bad request payload";
  // the response is sent only when the handler returns OK. Whatever the handler refers to must live
  // until the server is stopped.
  template <DecodableMessage Req, EncodableMessage Resp>
  void Register(const std::string& method, std::function<Status(const Req&, Resp*)> handler) {
    SetHandler(method, [handler = std::move(handler)](std::string_view payload, std::string* out) {
      Req request;
      if (!Decode(payload, &request)) return Status::InvalidArgument("bad request payload");
      Resp response;
      if (Status s = handler(request, &response); !s.ok()) return s;
      AppendTo(response, out);
      return Status();
    });
  }

  // Listens on `bind_addr`, a dotted IPv4 address, and starts to accept. Port 0 takes a free one.
  Status Start(int port, const std::string& bind_addr);

  // The port listened on, after Start.
  int port() const { return bound_port; }

  // Blocks until the server no longer accepts connections.
  void Wait() EXCLUDES(accept_mutex);

  // Ends accepting. No handler starts after Stop was called, and none is running when it returns.
  // Connections that wait for a request end when their peer closes or sends one. A second call
  // returns at once.
  void Stop() EXCLUDES(accept_mutex);

 private:
  // Appends the response payload; on failure what it appended is discarded.
  using Handler = std::function<Status(std::string_view payload, std::string* response)>;

  // Shared with the connection threads, which may outlive the server.
  struct Shared {
    explicit Shared(int timeout_ms) : write_timeout_ms(timeout_ms) {}

    const int write_timeout_ms;
    // Never changes after Start, so it is read without a lock.
    std::map<std::string, Handler, std::less<>> methods;
    std::atomic<bool> stopping = false;
    std::atomic<int> running_handlers = 0;
  };
  // Counts a handler as running. The handler runs only if it was admitted.
  class HandlerAdmission;

  void SetHandler(const std::string& method, Handler handler);
  void AcceptLoop();
  static void Serve(UniqueFd connection, const std::shared_ptr<Shared>& shared);
  // Builds the frame that answers a request; false when the server is stopping.
  static bool Answer(Shared* shared, std::string_view method, std::uint64_t request_id,
                     std::string_view payload, std::string* response);

  const std::shared_ptr<Shared> shared;
  UniqueFd listen_socket;
  int bound_port = 0;

  // Held while the accept thread is joined.
  Mutex accept_mutex;
  std::thread accept_thread GUARDED_BY(accept_mutex);
};

}  // namespace kandb::kanrpc
