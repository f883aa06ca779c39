// Frames over a socket pair, and the server over loopback.

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>

#include <future>
#include <latch>
#include <utility>

#include "pdpb/messages.h"
#include "rpc/frame.h"
#include "rpc/rpc_client.h"
#include "rpc/rpc_server.h"
#include "rpc/socket_io.h"
#include "support/eventually.h"
#include "support/hex.h"
#include "support/proc.h"
#include "support/raw_connection.h"

namespace kandb::kanrpc {
namespace {

using pdpb::TsoRequest;
using pdpb::TsoResponse;
using testing::Eventually;
using testing::Hex;
using testing::RawConnection;

struct SocketPair {
  SocketPair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near = UniqueFd(ends[0]);
    far = UniqueFd(ends[1]);
  }
  UniqueFd near, far;
};

std::string PingFrame() {
  return Hex("4b525043 00 0807060504030201 0200 5064 03000000 616263 73a319da");
}

TEST(Frame, HasThisLayout) {
  EXPECT_EQ(BuildFrame(kRequest, 0x0102030405060708, "Pd", "abc"), PingFrame());
  SocketPair pair;
  ASSERT_TRUE(WriteAll(pair.far.get(), PingFrame() + "KRPC\1", -1).ok());
  pair.far.Reset();
  FrameReader reader(pair.near.get());
  Frame frame;
  ASSERT_TRUE(reader.Read(&frame, -1).ok());
  const auto type = static_cast<FrameType>(frame.type);
  EXPECT_EQ(BuildFrame(type, frame.request_id, frame.method, frame.payload), PingFrame());
  EXPECT_EQ(reader.Read(&frame, -1).ToString(), "NotFound: kanrpc: connection closed");
}

std::size_t HeapInUse() {
  const struct mallinfo2 heap = ::mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

TEST(FrameReader, NamesTheFault) {
  const std::pair<std::string, const char*> cases[] = {
      {PingFrame().replace(0, 4, "KRPD"), "bad magic"},
      {PingFrame().replace(22, 1, "x"), "frame crc mismatch"},
      {Hex("4b525043 00 0000000000000000 0101"), "method too long"},
      {Hex("4b525043 00 0000000000000000 0000 01000004"), "payload too large"},
      // The largest payload is waited for, and its memory is not allocated before it arrives.
      {Hex("4b525043 00 0000000000000000 0000 00000004"), "io timeout"},
      {"", "io timeout"},
  };
  for (const auto& [bytes, message] : cases) {
    SocketPair pair;
    ASSERT_TRUE(WriteAll(pair.far.get(), bytes, -1).ok());
    FrameReader reader(pair.near.get());
    Frame frame;
    const std::size_t before = HeapInUse();
    EXPECT_EQ(reader.Read(&frame, 0).ToString(), std::string("Corruption: kanrpc: ") + message);
    EXPECT_LT(HeapInUse(), before + (1 << 20));
  }
}

// Bytes that malloc has handed out.
Status AnswerBytes(const TsoRequest& request, pdpb::UpsertRegionResponse* response) {
  response->message.assign(request.count, 'x');
  return {};
}

// A server with methods that echo the count, answer with that many bytes, fail, throw, or wait for
// the test.
class ServerTest : public ::testing::Test {
 protected:
  ServerTest() {
    server.Register<TsoRequest, TsoResponse>("Echo", [](auto& request, auto* response) {
      response->count = request.count;
      return Status();
    });
    server.Register<TsoRequest, TsoResponse>(
        "Fail", [](auto&, auto*) { return Status::NotFound("nothing there"); });
    server.Register<TsoRequest, TsoResponse>(
        "Throw", [](auto&, auto*) -> Status { throw std::bad_alloc(); });
    server.Register<TsoRequest, TsoResponse>("Wait", [this](auto&, auto*) {
      entered.count_down();
      released.wait();
      return Status();
    });
    server.Register<TsoRequest, pdpb::UpsertRegionResponse>("Bytes", AnswerBytes);
    EXPECT_TRUE(server.Start(0, "127.0.0.1").ok());
  }

  // One attempt, without a time-out that a slow machine could pass.
  std::unique_ptr<RpcClient> Client() {
    const RpcClientOptions options = {.timeout_ms = 60000, .attempts = 1};
    return std::make_unique<RpcClient>("127.0.0.1:" + std::to_string(server.port()), options);
  }

  static bool Works(RpcClient* client) {
    std::string answer;
    return client->Call("Echo", Encode(TsoRequest{42}), &answer).ok() &&
           answer == Encode(TsoResponse{0, 42});
  }

  std::latch entered{1};
  std::latch released{1};
  RpcServer server;
};

TEST_F(ServerTest, AnswersRequestsAndFailures) {
  constexpr std::uint32_t kLargest = kMaxPayloadSize - 6;  // a field of that many bytes
  const struct {
    const char* method;
    std::string payload;
    std::string status;
  } cases[] = {
      {"Echo", Encode(TsoRequest{42}), "OK"},
      {"Echo", "", "OK"},
      {"Echo", "abc", "Corruption: remote: InvalidArgument: bad request payload"},
      {"echo", "", "Corruption: remote: unknown method: echo"},
      {"", "", "Corruption: remote: unknown method: "},
      {"Fail", "", "Corruption: remote: NotFound: nothing there"},
      {"Bytes", Encode(TsoRequest{kLargest}), "OK"},
      {"Bytes", Encode(TsoRequest{kLargest + 1}),
       "Corruption: remote: Corruption: kanrpc: payload too large"},
      {"Throw", "", "NotFound: kanrpc: connection closed"},
  };
  const auto client = Client();
  RawConnection bystander(server.port());
  for (const auto& c : cases) {
    std::string answer;
    EXPECT_EQ(client->Call(c.method, c.payload, &answer).ToString(), c.status);
    EXPECT_TRUE(Works(client.get()));
    EXPECT_TRUE(bystander.Answers());
  }
}

TEST_F(ServerTest, AnswersABurstInOrderAlsoAfterAHalfClose) {
  RawConnection client(server.port());
  std::string burst;
  for (std::uint64_t id = 0; id < 500; ++id) {
    burst += BuildFrame(kRequest, id, id % 3 == 0 ? "Fail" : "Echo", "");
  }
  ASSERT_TRUE(client.Send(burst));
  ::shutdown(client.fd(), SHUT_WR);
  Frame frame;
  for (std::uint64_t id = 0; id < 500; ++id) {
    ASSERT_TRUE(client.Read(&frame).ok());
    EXPECT_EQ(frame.request_id, id);
    EXPECT_EQ(frame.type, id % 3 == 0 ? kError : kResponse);
  }
  EXPECT_EQ(client.Read(&frame).code(), Status::kNotFound);
}

TEST_F(ServerTest, AnIdleConnectionKeepsNoLargeBuffer) {
  const std::string requests[] = {
      BuildFrame(kRequest, 1, "Echo", Hex("6300 00000002") + std::string(32 << 20, 'x')),
      BuildFrame(kRequest, 1, "Bytes", Encode(TsoRequest{kMaxPayloadSize}))};
  if (HeapInUse() < requests[0].size()) GTEST_SKIP() << "this malloc keeps no account";
  RawConnection client(server.port());
  ASSERT_TRUE(client.Answers());
  for (const std::string& request : requests) {
    const std::size_t before = HeapInUse();
    Frame answer;
    ASSERT_TRUE(client.Send(request) && client.Read(&answer).ok());
    EXPECT_TRUE(Eventually([&] { return HeapInUse() < before + (1 << 20); }));
  }
}

TEST(RpcServer, ClosesAConnectionWhosePeerDoesNotRead) {
  RpcServer server(20);
  server.Register<TsoRequest, pdpb::UpsertRegionResponse>("Bytes", AnswerBytes);
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  const long files = testing::OpenFiles(::getpid());
  RawConnection client(server.port());
  ASSERT_TRUE(client.Answers());
  EXPECT_EQ(testing::OpenFiles(::getpid()), files + 2);
  ASSERT_TRUE(client.Send(BuildFrame(kRequest, 1, "Bytes", Encode(TsoRequest{48 << 20}))));
  EXPECT_TRUE(Eventually([&] { return testing::OpenFiles(::getpid()) == files + 1; }));
}

TEST_F(ServerTest, StopWaitsForHandlersAndStartsNone) {
  RawConnection waiting(server.port());
  const auto idle = Client();
  ASSERT_TRUE(Works(idle.get()));
  ASSERT_TRUE(waiting.Send(BuildFrame(kRequest, 1, "Wait", "")));
  entered.wait();
  auto stopped = std::async(std::launch::async, [&] { server.Stop(); });
  server.Wait();  // returns when accepting has ended, before the handler does
  EXPECT_FALSE(Works(idle.get()));
  // A Stop that did not wait for the handler would return long before.
  EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  released.count_down();
  stopped.get();
  EXPECT_LT(RawConnection(server.port()).fd(), 0);
  server.Stop();
}

}  // namespace
}  // namespace kandb::kanrpc
