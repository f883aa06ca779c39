// The RPC client against a peer that follows a script, the pool, and typed calls.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>

#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "client/pd_client.h"
#include "rpc/rpc_server.h"
#include "rpc/socket_io.h"
#include "support/raw_connection.h"

namespace kandb::kanrpc {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Listens with a full queue: a further connection is not refused, it waits.
struct FullListener {
  FullListener() {
    EXPECT_EQ(::listen(listener.get(), 0), 0);
    filler.emplace(ntohs(address.sin_port));
    pollfd arrived{.fd = listener.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&arrived, 1, -1), 1);
  }
  sockaddr_in address;
  UniqueFd listener = testing::BindLoopback(&address);
  std::optional<testing::RawConnection> filler;
};

// Listens like a server, answers the n-th request by the n-th step of its script, and closes the
// connection after every step but 'o'. So every request that does not follow an 'o' needs a new
// connection.
//   o answer   i wrong id   t wrong type   e error frame   h half a frame   c close   s stall
class ScriptedPeer {
 public:
  explicit ScriptedPeer(std::string peer_script) : script(std::move(peer_script)) {
    sockaddr_in address;
    listener = testing::BindLoopback(&address);
    EXPECT_EQ(::listen(listener.get(), 8), 0);
    target = "localhost:" + std::to_string(ntohs(address.sin_port));
    thread = std::thread([this] {
      for (std::size_t step = 0; step < script.size();) step = Serve(step);
    });
  }
  ~ScriptedPeer() {
    ::shutdown(listener.get(), SHUT_RDWR);
    thread.join();
  }

  std::string target;

 private:
  // Serves one connection from `step` on; returns the next step.
  std::size_t Serve(std::size_t step) {
    const UniqueFd connection(::accept(listener.get(), nullptr, nullptr));
    FrameReader reader(connection.get());
    Frame request;
    while (step < script.size()) {
      if (!reader.Read(&request, -1).ok()) return connection.valid() ? step : script.size();
      const char action = script[step++];
      const FrameType type = action == 'e'   ? kError
                             : action == 't' ? static_cast<FrameType>(9)
                                             : kResponse;
      std::string frame = BuildFrame(type, request.request_id + (action == 'i' ? 1 : 0),
                                     request.method, request.payload);
      if (action == 'h') frame.resize(frame.size() / 2);
      if (action == 's') (void)reader.Read(&request, -1);  // until the client gives up
      if (action == 'c' || action == 's') return step;
      EXPECT_TRUE(WriteAll(connection.get(), frame, -1).ok());
      if (action != 'o') return step;
    }
    return step;
  }

  const std::string script;
  UniqueFd listener;
  std::thread thread;
};

TEST(RpcClient, TriesAgainOnANewConnection) {
  const struct {
    const char* script;
    std::int32_t attempts;
    const char* status;
    int pauses_ms;
  } cases[] = {
      {"ooo", 1, "OK", 0},
      {"ie", 1, "Corruption: kanrpc: request id mismatch", 0},
      {"t", 1, "Corruption: kanrpc: bad frame type", 0},
      {"h", 0, "NotFound: kanrpc: connection closed", 0},
      {"s", -5, "Corruption: kanrpc: io timeout", 0},
      {"e", 1, "Corruption: remote: payload", 0},
      {"ico", 3, "OK", 60},
      {"chie", 4, "Corruption: remote: payload", 120},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    ScriptedPeer peer(c.script);
    const bool stalls = std::string_view(c.script) == "s";
    RpcClient client(peer.target, {.timeout_ms = stalls ? 50 : 60000, .attempts = c.attempts});
    const auto start = steady_clock::now();
    std::string answer = "untouched";
    EXPECT_EQ(client.Call("method", "payload", &answer).ToString(), c.status);
    EXPECT_GE(steady_clock::now() - start, milliseconds(c.pauses_ms));
    EXPECT_EQ(answer, std::string_view(c.status) == "OK" ? "payload" : "untouched");
  }
}

TEST(RpcClient, NamesTheServerItCannotReachInTime) {
  RpcServer gone;
  ASSERT_TRUE(gone.Start(0, "127.0.0.1").ok());
  const std::string port = std::to_string(gone.port());
  gone.Stop();
  const FullListener full;
  const auto start = steady_clock::now();
  for (const std::string& target :
       {"127.0.0.1:" + port, std::string("nowhere"), std::string("no.such.host.invalid:1"),
        "::1:" + port, "127.0.0.1:" + std::to_string(ntohs(full.address.sin_port))}) {
    RpcClient client(target, {.timeout_ms = 100, .attempts = 2});
    std::string answer;
    EXPECT_EQ(client.Call("m", "", &answer).ToString(), "Corruption: cannot connect to " + target);
  }
  // The system itself would give up after two minutes.
  EXPECT_LT(steady_clock::now() - start, std::chrono::minutes(2));
}

TEST(ConnectToFirst, TriesEveryAddressInTurn) {
  const FullListener full;
  sockaddr_in refusing;
  const UniqueFd bound = testing::BindLoopback(&refusing);
  RpcServer server;
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  sockaddr_in targets[] = {full.address, refusing, testing::Loopback(server.port())};
  addrinfo list[3] = {};
  for (int i = 0; i < 3; ++i) {
    list[i].ai_family = AF_INET;
    list[i].ai_socktype = SOCK_STREAM;
    list[i].ai_addrlen = sizeof(targets[i]);
    list[i].ai_addr = reinterpret_cast<sockaddr*>(&targets[i]);
    list[i].ai_next = i < 2 ? &list[i + 1] : nullptr;
  }
  const UniqueFd connected = ConnectToFirst(list, 200);
  ASSERT_TRUE(connected.valid());
  sockaddr_in peer{};
  socklen_t size = sizeof(peer);
  EXPECT_EQ(::getpeername(connected.get(), reinterpret_cast<sockaddr*>(&peer), &size), 0);
  EXPECT_EQ(ntohs(peer.sin_port), server.port());
  EXPECT_EQ(::fcntl(connected.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(RpcClient, TakesAnIPv6AddressInBrackets) {
  if (!UniqueFd(::socket(AF_INET6, SOCK_STREAM, 0)).valid()) GTEST_SKIP() << "no IPv6";
  RpcServer server;
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  // An IPv6 address by which IPv4 is reached, on machines without an IPv6 loopback too.
  RpcClient client("[::ffff:127.0.0.1]:" + std::to_string(server.port()), {60000, 1});
  std::string answer;
  EXPECT_EQ(client.Call("m", "", &answer).ToString(), "Corruption: remote: unknown method: m");
}

TEST(RpcClient, RefusesWhatNoServerWouldTake) {
  RpcClient client("127.0.0.1:1", {});
  std::string answer;
  EXPECT_EQ(client.Call(std::string(257, 'm'), "", &answer).ToString(),
            "InvalidArgument: kanrpc: method too long");
  EXPECT_EQ(client.Call("m", std::string(kMaxPayloadSize + 1, 'p'), &answer).ToString(),
            "InvalidArgument: kanrpc: payload too large");
}

// Each connection of the server is a thread: as many threads as clients serve the calls of a pool.
TEST(RpcClientPool, SpreadsConcurrentCallsInTurn) {
  std::mutex mutex;
  std::map<std::thread::id, int> calls_by_connection;
  RpcServer server;
  server.Register<pdpb::TsoRequest, pdpb::TsoResponse>(
      "Pd.Tso", [&](const pdpb::TsoRequest& request, pdpb::TsoResponse* response) {
        const std::lock_guard lock(mutex);
        ++calls_by_connection[std::this_thread::get_id()];
        response->count = request.count;
        return Status();
      });
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  RpcClientPool pool("127.0.0.1:" + std::to_string(server.port()), {}, 3);
  client::PdClient client(&pool);
  std::vector<std::thread> threads;
  for (std::uint32_t t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        pdpb::TsoResponse response;
        EXPECT_TRUE(client.Tso({t}, &response).ok());
        EXPECT_EQ(response.count, t);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(calls_by_connection.size(), 3u);
  for (const auto& [connection, calls] : calls_by_connection) EXPECT_EQ(calls, 100);
}

TEST(PdClient, RefusesAResponseThatDoesNotDecode) {
  ScriptedPeer peer("o");  // echoes the request, which is no such response
  RpcClient rpc(peer.target, {.timeout_ms = 5000, .attempts = 1});
  pdpb::BootstrapResponse response;
  EXPECT_EQ(client::PdClient(&rpc).Bootstrap({}, &response).ToString(),
            "Corruption: bad response payload");
}

}  // namespace
}  // namespace kandb::kanrpc
