// The real executable when it is killed repeatedly under load, and when its disk is full or fails.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>
#include <utility>

#include "support/answer.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/server_process.h"
#include "support/temp_dir.h"
#include "tools/common/disjoint_ranges.h"

namespace kandb {
namespace {

using namespace pdpb;  // NOLINT(google-build-using-namespace): every message is used here
using testing::Answer;
using testing::Caller;
using testing::Eventually;
using testing::ListeningServer;
using testing::TempDir;
using namespace std::chrono_literals;

// A region that starts at `key`, and the only one here that covers it.
Region RegionAtKey(std::uint64_t id, const std::string& key, std::size_t padding) {
  return {id, key, key + '\0' + std::string(padding, static_cast<char>('a' + id % 26)), {}, {}};
}

// --- Killed under load ---

// Numbers that were handed out: none twice, and none below one that a client had received before
// the request for it was sent. Thread-safe.
class HandedOut {
 public:
  std::uint64_t end() {
    const std::lock_guard lock(mutex);
    return ranges.end();
  }

  // `least` is what end() was before the request.
  void Add(std::uint64_t least, std::uint64_t first, std::uint64_t count) {
    const std::lock_guard lock(mutex);
    EXPECT_GE(first, least);
    EXPECT_TRUE(ranges.Add(first, count)) << first;
  }

  void Forget() { ranges = {}; }

 private:
  std::mutex mutex;
  tools::DisjointRanges ranges;
};

// The server's region at the start key of `region`; an empty one when there is none.
Region Find(Caller* caller, const Region& region) {
  GetRegionResponse found;
  const Status status = caller->GetRegion({region.start_key}, &found);
  EXPECT_TRUE(status.ok() || status.message().starts_with("remote: NotFound: "))
      << status.message();
  return found.region;
}

// Some regions, which one client keeps rewriting, all of them by one request. Versions begin at 1.
struct Group {
  static constexpr std::uint64_t kSize = 3;

  // A region in a version: all of the record follows from these numbers.
  Region Get(std::uint64_t part, std::uint64_t version) const {
    const std::uint64_t id = first_id + part;
    Region region = RegionAtKey(id, "k" + std::to_string(id), version * 7919 % 3000);
    region.epoch = {id, version};
    region.peers = {{version, id, PeerRole::kVoter}};
    return region;
  }

  // The last region exists in odd versions only: even ones remove it.
  static bool Exists(std::uint64_t part, std::uint64_t version) {
    return version > 0 && (part + 1 < kSize || version % 2 == 1);
  }

  UpsertRegionRequest Next() {
    ++sent;
    UpsertRegionRequest request;
    for (std::uint64_t part = 0; part < kSize; ++part) {
      const Region region = Get(part, sent);
      if (!Exists(part, sent)) request.removed_region_ids.push_back(region.id);
      if (Exists(part, sent)) request.regions.push_back(region);
    }
    return request;
  }

  // Checks that what was acknowledged is there, and a version whole. What is found counts as
  // acknowledged from now on.
  void Check(Caller* caller) {
    const std::uint64_t version = Find(caller, Get(0, 0)).epoch.version;
    EXPECT_TRUE(acknowledged <= version && version <= sent) << version;
    acknowledged = sent = version;
    for (std::uint64_t part = 0; part < kSize; ++part) {
      const Region region = Get(part, version);
      EXPECT_EQ(Find(caller, region), Exists(part, version) ? region : Region());
    }
  }

  std::uint64_t first_id;
  std::uint64_t acknowledged = 0;
  std::uint64_t sent = 0;
};

class KillLoop {
 public:
  explicit KillLoop(std::uint64_t random_seed) : seed(random_seed) {
    for (std::uint64_t i = 0; i < kClients * kGroups; ++i) {
      groups.push_back({.first_id = 100 + i * Group::kSize});
    }
  }

  // Checks the state that the last server left, loads a new one until it has acknowledged `enough`
  // changes of regions, and kills it. Whether it acknowledged any.
  bool RunCycle(std::uint64_t cycle, std::uint64_t enough) {
    ListeningServer server(dir.path());
    Check(server.port());
    killed = false;
    const std::uint64_t before = changes;
    std::vector<std::thread> threads;
    for (std::uint64_t client = 0; client < kClients; ++client) {
      const std::uint64_t client_seed = seed + cycle * kClients + client;
      threads.emplace_back([=, this, port = server.port()] { Work(client, port, client_seed); });
    }
    EXPECT_TRUE(Eventually([&] { return changes - before >= enough; }));
    killed = true;
    server.Kill();
    for (std::thread& thread : threads) thread.join();
    return changes > before;
  }

  void Check(int port) {
    Caller caller(port);
    for (Group& group : groups) group.Check(&caller);
    // Only the first bootstrap creates the cluster, and its region stays.
    const auto done = Answer(caller, &Caller::Bootstrap, {{1, "host", 0}, first_region, {}});
    EXPECT_EQ(done.already_bootstrapped, std::exchange(bootstrapped, true));
    EXPECT_EQ(Find(&caller, first_region), first_region);
    timestamps.Forget();  // they are not stored
  }

  const TempDir dir;
  std::atomic<std::uint64_t> changes = 0;  // of regions, acknowledged
  std::atomic<std::uint64_t> ranges = 0;   // of ids or timestamps

 private:
  static constexpr std::uint64_t kClients = 8;
  static constexpr std::uint64_t kGroups = 6;  // of each client

  // Calls random methods until the server is gone; no call fails before it is killed.
  void Work(std::uint64_t client, int port, std::uint64_t client_seed) {
    Caller caller(port);
    std::mt19937_64 random(client_seed);
    for (Status status; status.ok();) {
      const std::uint64_t kind = random() % 5;
      const auto count = static_cast<std::uint32_t>(random() % 600 + 1);
      if (kind == 0) {
        status = Take(&caller, &Caller::AllocId, count, &AllocIdResponse::first_id, &ids);
      } else if (kind == 1) {
        status = Take(&caller, &Caller::Tso, count, &TsoResponse::timestamp, &timestamps);
      } else {
        status = Write(&caller, &groups[client * kGroups + count % kGroups]);
      }
      EXPECT_TRUE(status.ok() || killed) << status.ToString();
    }
  }

  template <class Class, class Request, class Response>
  Status Take(Caller* caller, Status (Class::*method)(const Request&, Response*),
              std::uint32_t count, std::uint64_t Response::*first, HandedOut* numbers) {
    const std::uint64_t least = numbers->end();
    Response taken;
    if (Status s = (caller->*method)({count}, &taken); !s.ok()) return s;
    numbers->Add(least, taken.*first, count);
    ++ranges;
    return {};
  }

  Status Write(Caller* caller, Group* group) {
    UpsertRegionResponse done;
    if (Status s = caller->UpsertRegion(group->Next(), &done); !s.ok()) return s;
    group->acknowledged = group->sent;
    ++changes;
    return {};
  }

  const std::uint64_t seed;
  const Region first_region = RegionAtKey(1, "b", 0);
  HandedOut ids;
  HandedOut timestamps;
  std::vector<Group> groups;
  bool bootstrapped = false;
  std::atomic<bool> killed = false;
};

TEST(ProcessFaults, KillNineLosesNothingAcknowledged) {
  const std::uint64_t cycles =
      testing::FromEnvironment("KANDB_KILL_CYCLES", KANDB_SANITIZED ? 20 : 50);
  const std::uint64_t seed = testing::FromEnvironment("KANDB_SEED", std::random_device()());
  std::cout << "KANDB_SEED=" << seed << std::endl;
  std::mt19937_64 random(seed);
  KillLoop loop(seed);
  std::uint64_t productive_cycles = 0;
  for (std::uint64_t cycle = 0; cycle < cycles && !HasFailure(); ++cycle) {
    SCOPED_TRACE("cycle " + std::to_string(cycle));
    if (random() % 8 == 0) {  // killed while it recovers, or soon after
      const testing::ServerProcess server({"--port=0"}, loop.dir.path());
      std::this_thread::sleep_for(random() % 20000 * 1us);
    }
    productive_cycles += loop.RunCycle(cycle, random() % 300) ? 1 : 0;
  }
  loop.Check(ListeningServer(loop.dir.path()).port());
  EXPECT_GT(productive_cycles, cycles / 2);
  std::cout << cycles << " cycles, " << productive_cycles << " with acknowledged changes; "
            << loop.changes << " changes, " << loop.ranges << " ranges of ids or timestamps\n";
}

// --- A full disk, and one that fails ---

constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr char kFull[] = "remote: Corruption: wal write: No space left on device";

// A small file system, mounted for this process and its children alone: it is released with the
// last of them, however they end.
struct SmallDisk {
  explicit SmallDisk(const char* size) : failure(Mount(size)) {}
  ~SmallDisk() { ::umount2(dir.path().c_str(), MNT_DETACH); }

  std::string Mount(const char* size) const {
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    if (::unshare(CLONE_NEWNS) != 0) {  // not root: as the root of a name space of its own
      if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return "unshare: " + ErrnoText(errno);
      testing::WriteFile("/proc/self/setgroups", "deny");
      testing::WriteFile("/proc/self/uid_map", user + " " + user + " 1");
      testing::WriteFile("/proc/self/gid_map", group + " " + group + " 1");
    }
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", dir.path().c_str(), "tmpfs", 0, size) != 0) {
      return "mount: " + ErrnoText(errno);
    }
    return "";
  }

  const TempDir dir;
  const std::string failure;  // why it is not mounted; empty when it is
};

// Writes regions of 4 MiB, and remembers which were acknowledged.
struct LargeRegions {
  static Region Get(std::size_t i) {
    return RegionAtKey(1000 + i, "k" + std::to_string(1000 + i), 4 * kMiB);
  }

  Status WriteNext(int port) {
    UpsertRegionResponse done;
    Status status = Caller(port).UpsertRegion({{Get(acknowledged.size())}, {}}, &done);
    acknowledged.push_back(status.ok());
    return status;
  }

  // Acknowledged regions are there, refused ones are not; timestamps and heartbeats still work.
  void Check(int port) const {
    Caller caller(port);
    Answer(caller, &Caller::Tso, {1});
    Answer(caller, &Caller::RegionHeartbeat, {1, {}, {1000}});
    for (std::size_t i = 0; i < acknowledged.size(); ++i) {
      GetRegionResponse answer;
      const Status status = caller.GetRegion({Get(i).start_key}, &answer);
      EXPECT_EQ(status.message(), acknowledged[i] ? "" : "remote: NotFound: no region covers key");
      EXPECT_TRUE(answer.region == (acknowledged[i] ? Get(i) : Region())) << i;
    }
  }

  std::vector<bool> acknowledged;
};

constexpr int kWalCapacity = 16;  // regions of 4 MiB

// There is space for a full first WAL, but not for the table made of it.
TEST(ProcessFaults, AFullDiskRefusesChangesUntilThereIsRoom) {
  const SmallDisk disk("size=192m");
  if (!disk.failure.empty()) GTEST_SKIP() << disk.failure;
  const std::string ballast = disk.dir.File("ballast");
  const UniqueFd file(::open(ballast.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  ASSERT_EQ(::posix_fallocate(file.get(), 0, 100 * kMiB), 0);
  ListeningServer server(disk.dir.path());
  LargeRegions regions;
  for (int i = 0; i < kWalCapacity; ++i) ASSERT_TRUE(regions.WriteNext(server.port()).ok());
  // The attempts to write the table take the free space, and release it.
  for (int refused = 0; refused < 5;) {
    const Status status = regions.WriteNext(server.port());
    if (status.ok()) continue;
    ASSERT_EQ(status.message(), kFull);
    ++refused;
  }
  regions.Check(server.port());
  const std::string wal = disk.dir.File("pd-data/wal-000001.log");
  EXPECT_TRUE(std::filesystem::exists(wal));

  ASSERT_EQ(::ftruncate(file.get(), 0), 0);
  EXPECT_TRUE(regions.WriteNext(server.port()).ok());
  EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists(wal); }));
  server.Kill();
  regions.Check(ListeningServer(disk.dir.path()).port());
}

// Makes every fdatasync of this process fail, and of the program that it executes.
void FailSyncs() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fdatasync, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {.len = std::size(filter), .filter = filter};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    ::_exit(126);
  }
}

TEST(ProcessFaults, NoChangeIsAcknowledgedThatIsNotSynced) {
  const TempDir dir;
  LargeRegions regions;
  ASSERT_TRUE(regions.WriteNext(ListeningServer(dir.path()).port()).ok());
  const ListeningServer server(dir.path(), FailSyncs);
  EXPECT_EQ(regions.WriteNext(server.port()).message(),
            "remote: Corruption: wal fdatasync: Input/output error");
  regions.Check(server.port());
}

}  // namespace
}  // namespace kandb
