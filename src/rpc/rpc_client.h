// Calls the methods of an RpcServer over one cached connection, with time-outs, a bounded number of
// attempts and growing pauses between them. Thread-safe: a client makes one call at a time, other
// callers wait; a pool spreads concurrent calls over several clients.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/mutex.h"
#include "common/posix_file.h"
#include "common/status.h"
#include "rpc/frame.h"

namespace kandb::kanrpc {

struct RpcClientOptions {
  // Bounds each wait for the server: to connect to one of its addresses, to send, or to receive.
  // Negative waits forever. Does not bound the lookup of its name.
  std::int32_t timeout_ms = 5000;
  std::int32_t attempts = 3;  // 0 or less is one attempt
};

class RpcClient {
 public:
  // `server` is host:port; the host is a name, an IPv4 address or an IPv6 address in brackets.
  // Connects at the first call, to the first address of the name that can be reached.
  RpcClient(std::string server, const RpcClientOptions& client_options);

  // Sends a request and waits for its response. Every failure closes the connection. The call is
  // retried after 20 ms, 40 ms and so on while attempts are left; the last failure is returned:
  // NotFound "kanrpc: connection closed"; Corruption "cannot connect to <server>", "kanrpc: request
  // id mismatch", "kanrpc: bad frame type", "remote: " and the server's text, or a failure of
  // reading or writing frames. InvalidArgument for a method or payload above the limits, which is
  // not sent. A failed call may have been carried out. `*response` is written only on success.
  Status Call(std::string_view method, std::string_view payload, std::string* response)
      EXCLUDES(mutex);

 private:
  Status Connect() REQUIRES(mutex);
  Status CallOnce(std::string_view method, std::string_view payload, std::string* response)
      REQUIRES(mutex);

  const std::string target;
  const RpcClientOptions options;

  // Held for a whole call, its attempts and pauses included.
  Mutex mutex;
  UniqueFd socket GUARDED_BY(mutex);                    // invalid: not connected
  std::optional<FrameReader> reader GUARDED_BY(mutex);  // of `socket`
  std::uint64_t next_request_id GUARDED_BY(mutex) = 1;
};

class RpcClientPool {
 public:
  // `size` clients of one server, at least 1.
  RpcClientPool(const std::string& server, const RpcClientOptions& options, std::size_t size);

  // Calls through the next client in turn.
  Status Call(std::string_view method, std::string_view payload, std::string* response);

 private:
  std::vector<std::unique_ptr<RpcClient>> clients;
  std::atomic<std::uint64_t> next_client = 0;
};

}  // namespace kandb::kanrpc
