// The real executable among very many, slow, stuck, vanishing and hostile peers.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <iostream>
#include <random>

#include "support/answer.h"
#include "support/eventually.h"
#include "support/proc.h"
#include "support/raw_connection.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace kandb {
namespace {

using namespace pdpb;  // NOLINT(google-build-using-namespace): every message is used here
using kanrpc::BuildFrame;
using kanrpc::Frame;
using kanrpc::kRequest;
using testing::Answer;
using testing::Caller;
using testing::Eventually;
using testing::OpenFiles;
using testing::ProcStatus;
using testing::RawConnection;

using Connections = std::vector<std::unique_ptr<RawConnection>>;
constexpr std::size_t kMiB = std::size_t{1} << 20;

// A server of which every connection, descriptor and thread is the test's.
struct Server {
  explicit Server(const std::function<void()>& in_child = {}) : process(dir.path(), in_child) {}

  // A new connection gets everything that there is: a durable change, a lookup of it, ids beyond
  // the stored mark, timestamps, and an answer to a heartbeat.
  void ExpectServes() {
    Caller caller(port);
    const std::uint64_t id = Answer(caller, &Caller::AllocId, {2000}).first_id;
    const std::string key = "k" + std::to_string(id);
    const Region region = {id, key, key + '\0', {}, {{1, 1, {}}}};
    Answer(caller, &Caller::UpsertRegion, {{region}, {}});
    EXPECT_EQ(Answer(caller, &Caller::GetRegion, {key}).region, region);
    Answer(caller, &Caller::Tso, {1});
    Answer(caller, &Caller::RegionHeartbeat, {1, {{id, {1}, {}, {}}}, {}});
  }

  // All connections are closed, and their threads and descriptors are free.
  void ExpectAlone() {
    EXPECT_TRUE(Eventually([&] { return OpenFiles(pid) <= files; }));
    EXPECT_TRUE(Eventually([&] { return ProcStatus(pid, "Threads") <= threads; }));
  }

  testing::TempDir dir;
  testing::ListeningServer process;
  const int port = process.port();
  const pid_t pid = process.pid();
  const long files = OpenFiles(pid);
  const long threads = ProcStatus(pid, "Threads");
};

std::function<void()> Limit(__rlimit_resource resource, rlim_t value) {
  return [=] {
    const rlimit limit{.rlim_cur = value, .rlim_max = value};
    ::setrlimit(resource, &limit);
  };
}

// Opens at most `most` connections, until the server closes one unanswered, which is not kept.
Connections ConnectWhileAnswered(int port, std::size_t most) {
  Connections answered;
  for (;;) {
    auto next = std::make_unique<RawConnection>(port);
    if (answered.size() == most || !next->Answers()) return answered;
    answered.push_back(std::move(next));
  }
}

void ExpectAllAnswer(const Connections& connections) {
  for (const auto& connection : connections) ASSERT_TRUE(connection->Answers());
}

// As many connections as the server takes, between `least` and `most`: it closes further ones.
Connections FillUp(int port, std::size_t least, std::size_t most) {
  Connections answered = ConnectWhileAnswered(port, most);
  EXPECT_GT(answered.size(), least);
  EXPECT_LT(answered.size(), most);
  for (int i = 0; i < 300; ++i) EXPECT_FALSE(RawConnection(port).Answers());
  ExpectAllAnswer(answered);
  return answered;
}

TEST(Peers, ThousandsOfIdleConnectionsCostLittle) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit raised{.rlim_cur = limit.rlim_max, .rlim_max = limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
  const std::size_t wanted = KANDB_SANITIZED ? 1000 : 10000;
  std::size_t count = std::min<std::size_t>(wanted, limit.rlim_max - 200);
  // Each connection also takes a thread. The limit may read "max", which is no number.
  std::size_t thread_limit = 0;
  if (std::ifstream("/sys/fs/cgroup/pids.max") >> thread_limit) {
    count = std::min(count, thread_limit / 2);
  }
  Server server;
  const long resident = ProcStatus(server.pid, "VmRSS");
  const long reserved = ProcStatus(server.pid, "VmSize");
  Connections idle = ConnectWhileAnswered(server.port, count);
  ASSERT_EQ(idle.size(), count);
  const auto each = [&](const char* name, long before) {
    return static_cast<double>(ProcStatus(server.pid, name) - before) / static_cast<double>(count);
  };
  std::cout << count << " connections, each " << each("VmRSS", resident) << " kB resident, "
            << each("VmSize", reserved) << " kB reserved\n";
  EXPECT_TRUE(KANDB_SANITIZED || each("VmRSS", resident) < 16);
  EXPECT_TRUE(KANDB_SANITIZED || each("VmSize", reserved) < 512);
  server.ExpectServes();
  ExpectAllAnswer(idle);
  idle.clear();
  server.ExpectAlone();
}

TEST(Peers, ConnectionsPastTheDescriptorLimitAreClosed) {
  Server server(Limit(RLIMIT_NOFILE, 256));
  Caller inside(server.port);
  const Region large = {1, "k", "k" + std::string(16 * kMiB, 'x'), {}, {}};
  Answer(inside, &Caller::UpsertRegion, {{large}, {}});
  Connections idle = FillUp(server.port, 150, 200);
  // Files can still be opened: a full memtable is flushed to a table, and its WAL deleted.
  for (int i = 0; i < 3; ++i) Answer(inside, &Caller::UpsertRegion, {{large}, {}});
  EXPECT_TRUE(Eventually(
      [&] { return !std::filesystem::exists(server.dir.File("pd-data/wal-000001.log")); }));
  ExpectAllAnswer(idle);
  idle.clear();
  // Once all but `inside` are closed, the very next connection is served.
  EXPECT_TRUE(Eventually([&] { return ProcStatus(server.pid, "Threads") <= server.threads + 1; }));
  EXPECT_TRUE(RawConnection(server.port).Answers());
}

TEST(Peers, ConnectionsWithoutAThreadAreClosed) {
  if (KANDB_SANITIZED) GTEST_SKIP() << "a sanitizer needs all address space";
  Server server(Limit(RLIMIT_AS, 512 * kMiB));
  server.ExpectServes();
  FillUp(server.port, 50, 5000);
  server.ExpectAlone();
  server.ExpectServes();
}

// Requests grow until the server is out of memory: to receive, decode, handle or log them.
TEST(Peers, OutOfMemoryEndsTheRequestAlone) {
  if (KANDB_SANITIZED) GTEST_SKIP() << "a sanitizer needs all address space";
  Server server(Limit(RLIMIT_AS, 256 * kMiB));
  server.ExpectServes();
  int failed_lookups = 0;
  int failed_removals = 0;
  for (std::size_t size = kMiB; size < 64 * kMiB; size += size / 2) {
    GetRegionResponse routed;
    const Status looked_up = Caller(server.port).GetRegion({std::string(size, 'x')}, &routed);
    failed_lookups += looked_up.message() != "remote: NotFound: no region covers key";
    const std::vector<std::uint64_t> ids(size / 14);
    UpsertRegionResponse removed;
    failed_removals += !Caller(server.port).UpsertRegion({{}, ids}, &removed).ok();
    server.ExpectServes();
    EXPECT_TRUE(size > kMiB || failed_lookups + failed_removals == 0);
  }
  EXPECT_GT(failed_lookups, 0);
  EXPECT_GT(failed_removals, 0);
}

TEST(Peers, ThoseThatNeverReadHurtNobody) {
  Server server;
  const Region large = {1, "m", "m" + std::string(8 * kMiB, 'x'), {}, {}};
  Answer(Caller(server.port), &Caller::UpsertRegion, {{large}, {}});
  const std::string request =
      BuildFrame(kRequest, 7, "Pd.GetRegion", Encode(GetRegionRequest{"m1"}));
  Connections never_read;
  for (int i = 0; i < 10; ++i) {
    never_read.push_back(std::make_unique<RawConnection>(server.port));
    for (int j = 0; j < 20; ++j) ASSERT_TRUE(never_read.back()->Send(request));
  }
  server.ExpectServes();
  never_read.clear();
  server.ExpectAlone();
}

// Bursts of requests, cut off anywhere and perhaps damaged; then a reset, at once or after a while.
TEST(Peers, ResetsAndGarbageEndTheirOwnConnection) {
  Server server;
  server.ExpectServes();
  const std::uint64_t seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 2000; ++round) {
    std::string payload(random() % 300, '\0');
    for (char& byte : payload) byte = static_cast<char>(random() % 3);
    std::string burst;
    for (std::uint64_t i = random() % 5; i > 0; --i) {
      burst += BuildFrame(kRequest, i, i % 2 == 0 ? "Pd.Tso" : "Pd.RegionHeartbeat", payload);
    }
    if (random() % 2 == 0) burst.resize(random() % (burst.size() + 1));
    if (random() % 4 == 0 && !burst.empty()) burst[random() % burst.size()] ^= 1;
    RawConnection peer(server.port);
    ASSERT_TRUE(peer.Send(burst));
    Frame frame;
    if (random() % 2 == 0) {
      ::shutdown(peer.fd(), SHUT_WR);  // so that an answer comes, or the end
      if (random() % 2 == 0) (void)peer.Read(&frame);
    }
    const linger hard{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(peer.fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
  }
  server.ExpectServes();
  server.ExpectAlone();
}

TEST(Peers, PromisesCostOnlyWhatWasSent) {
  constexpr long kPeers = 50;
  Server server;
  server.ExpectServes();
  const long before = ProcStatus(server.pid, "VmRSS");
  std::string promise = BuildFrame(kRequest, 1, "", std::string(64 * kMiB, 'x'));
  promise.resize(kMiB);
  Connections stalled;
  for (int i = 0; i < kPeers; ++i) {
    stalled.push_back(std::make_unique<RawConnection>(server.port));
    ASSERT_TRUE(stalled.back()->Send(promise));
  }
  server.ExpectServes();
  stalled.clear();
  server.ExpectAlone();  // all that was sent has been read
  const long peak = ProcStatus(server.pid, "VmHWM") - before;
  EXPECT_TRUE(KANDB_SANITIZED || peak < (kPeers + 16) * 1024) << peak;  // kB
}

}  // namespace
}  // namespace kandb
