// Crashes: a process that uses the engine ends at one of its file calls, and its directory is
// opened again. Everything acknowledged is there, the batch in flight whole or not at all.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <new>
#include <random>

#include "lsm/recovery.h"
#include "support/engine.h"
#include "support/environment.h"
#include "support/fault.h"
#include "support/temp_dir.h"

namespace kandb::lsm {
namespace {

using namespace testing;

// The sweep tries every call whose number is one more than a multiple of this.
constexpr int kStride = KANDB_SANITIZED ? 8 : 1;

// The effect of the crash besides the end of the process. Half of a write call may have happened;
// after a power cut each file may end anywhere after its synced bytes. Names are durable at once:
// the engine does not sync directories.
enum Loss { kNothing, kHalfOfAWrite, kAllUnsynced, kSomeUnsynced };

class CrashAtCall : public FileCallFilter {
 public:
  // The process ends after its n-th call that may change a file. Files in `dir` now are durable.
  CrashAtCall(const std::string& dir, int n, Loss what) : directory(dir), last(n), loss(what) {
    ForEachFile([&](const char*, const struct stat& file) { synced[file.st_ino] = file.st_size; });
  }

 private:
  static bool MayChange(CallKind kind) {
    return kind == kOpen || kind == kWrite || kind == kFsync || kind == kFdatasync ||
           kind == kFtruncate || kind == kRename || kind == kUnlink;
  }

  int Before(const FileCall& call) override {
    if (MayChange(call.kind)) ++calls;
    if (calls == last && loss == kHalfOfAWrite && call.kind == kWrite) *call.size /= 2;
    return 0;
  }

  void After(const FileCall& call) override {
    struct stat file {};
    if (call.kind == kOpen || call.kind == kFsync || call.kind == kFdatasync) {
      ::fstat(call.fd, &file);
      // A new file may have the inode of a deleted one.
      if (call.kind != kOpen || file.st_size == 0) synced[file.st_ino] = file.st_size;
    }
    if (calls < last) return;
    if (loss == kAllUnsynced || loss == kSomeUnsynced) {
      ForEachFile([this](const char* path, const struct stat& left) { LoseUnsynced(path, left); });
    }
    ::kill(::getpid(), SIGKILL);  // other threads wait before their next call
  }

  void LoseUnsynced(const char* path, const struct stat& file) {
    const off_t unsynced = file.st_size - synced[file.st_ino];
    const off_t kept = loss == kAllUnsynced ? 0 : static_cast<off_t>(random()) % (unsynced + 1);
    if (::truncate(path, file.st_size - unsynced + kept) != 0) ::_exit(EXIT_FAILURE);
  }

  template <class Visitor>
  void ForEachFile(Visitor visit) {
    for (const std::string& name : testing::FilesIn(directory)) {
      const std::string path = directory + "/" + name;
      struct stat file {};
      if (::stat(path.c_str(), &file) == 0) visit(path.c_str(), file);
    }
  }

  const std::string directory;
  const int last;
  const Loss loss;
  int calls = 0;
  std::map<ino_t, off_t> synced;  // bytes that survive, by inode
  std::minstd_rand random{static_cast<unsigned>(last)};
};

// Small keys that are overwritten and deleted, each value once.
struct Workload {
  Workload(std::uint_fast32_t seed, std::size_t batch_count) : models(1) {
    std::minstd_rand random(seed);
    const auto key = [&] { return "k" + std::to_string(random() % 24); };
    while (batches.size() < batch_count) {
      const std::string value = std::to_string(batches.size()) + std::string(random() % 40, 'v');
      Batch batch = {{kPut, key(), value}, {kPut, key() + "!", value + "!"}};
      for (auto i = random() % 3; i > 0; --i) batch.push_back({kDelete, key(), ""});
      models.push_back(models.back());
      Apply(batch, &models.back());
      batches.push_back(std::move(batch));
    }
  }

  std::vector<Batch> batches;
  std::vector<Model> models;  // models[n]: what n batches leave
};

// Shared by the process that crashes and its parent: how many batches were handed to the engine,
// and how many it has acknowledged.
struct Progress {
  std::atomic<std::size_t> started = 0;
  std::atomic<std::size_t> acknowledged = 0;
};

class Crash : public ::testing::Test {
 protected:
  // Writes the batches that are not acknowledged yet in a process of its own, reopening now and
  // then. False when it gets to the end without an n-th file call.
  bool RunUntilCrash(int n, Loss loss, bool wait_for_background) {
    const pid_t child = ::fork();
    if (child == 0) {
      CrashAtCall crash(dir->path(), n, loss);
      std::unique_ptr<LsmDb> db;
      for (std::size_t i = progress->acknowledged; i < workload.batches.size(); ++i) {
        if (db == nullptr || i % 16 == 15) {
          db.reset();
          if (!LsmDb::Open(dir->path(), options, &db).ok()) ::_exit(EXIT_FAILURE);
        }
        progress->started = i + 1;
        if (!db->Write(workload.batches[i]).ok()) ::_exit(EXIT_FAILURE);
        progress->acknowledged = i + 1;
        while (wait_for_background && (db->ImmutableMemTableCount() > 0 ||
                                       db->TableFileCount() > options.max_table_files)) {
          ::usleep(50);
        }
      }
      db.reset();
      ::_exit(EXIT_SUCCESS);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return true;
    EXPECT_EQ(status, EXIT_SUCCESS);
    return false;
  }

  // Counts the batch in flight as acknowledged when it is there.
  void ExpectHolds(const Model& found) {
    if (found != workload.models[progress->acknowledged]) {
      progress->acknowledged = progress->started.load();
    }
    EXPECT_EQ(found, workload.models[progress->acknowledged]);
  }

  // Opens the directory after the crash, goes on writing, and opens it once more.
  void ExpectRecovers() {
    const FileCallFilter without_syncs;
    auto db = Open(dir->path(), options);
    ASSERT_NE(db, nullptr);
    ExpectHolds(ReadAll(*db));
    EXPECT_TRUE(LookUp(*db, workload.models[progress->acknowledged]).ok());
    for (int i = 0; i < 8 && progress->acknowledged < workload.batches.size(); ++i) {
      ASSERT_TRUE(db->Write(workload.batches[progress->acknowledged]).ok());
      progress->started = ++progress->acknowledged;
    }
    db.reset();
    EXPECT_EQ(ReadAll(*Open(dir->path(), options)), workload.models[progress->acknowledged]);
  }

  void Begin(std::uint_fast32_t seed, std::size_t batch_count,
             const LsmDb::Options& engine_options) {
    dir = std::make_unique<TempDir>();
    workload = Workload(seed, batch_count);
    options = engine_options;
    progress->started = progress->acknowledged = 0;
  }

  std::unique_ptr<TempDir> dir;
  Workload workload{0, 0};
  LsmDb::Options options;
  Progress* const progress = new (::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Progress;
  std::uint64_t crashes = 0;
};

TEST_F(Crash, AtEveryFileCallLosesNothingAcknowledged) {
  for (const bool sync : {true, false}) {
    for (const Loss loss : {kNothing, kHalfOfAWrite, kAllUnsynced, kSomeUnsynced}) {
      if (!sync && loss >= kAllUnsynced) break;
      for (int n = 1; !HasFailure(); n += kStride) {
        SCOPED_TRACE(::testing::Message()
                     << "call " << n << ", sync " << sync << ", loss " << loss);
        Begin(1, 48, {.write_buffer_size = 500, .max_table_files = 2, .sync = sync});
        if (!RunUntilCrash(n, loss, true)) break;
        ++crashes;
        ExpectRecovers();
      }
    }
  }
  EXPECT_GT(crashes * kStride, 6 * 350);
  std::cout << crashes << " crashes\n";
}

// Random workloads and options, flushes beside writes, and several crashes in a row, also during
// the recovery from the one before. KANDB_CRASH_ROUNDS says how many workloads.
TEST_F(Crash, AtRandomCallsAgainAndAgainLosesNothingAcknowledged) {
  const std::uint64_t rounds = FromEnvironment("KANDB_CRASH_ROUNDS", 30 / kStride);
  const std::uint64_t seed = FromEnvironment("KANDB_CRASH_SEED", std::random_device()());
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE(::testing::Message() << "KANDB_CRASH_SEED=" << seed + round);
    std::minstd_rand random(seed + round);
    const bool sync = random() % 2 == 0;
    Begin(
        random(), 50 + random() % 300,
        {.write_buffer_size = 1 + random() % 2000, .max_table_files = random() % 5, .sync = sync});
    const auto reach = 20 + random() % 500;
    for (int lives = 0; lives < 20 && !HasFailure(); ++lives) {
      const auto n = static_cast<int>(1 + random() % reach);
      const auto loss = static_cast<Loss>(random() % (sync ? 4 : 2));
      if (!RunUntilCrash(n, loss, false)) break;
      ++crashes;
      if (random() % 4 == 0) {
        ExpectRecovers();
        continue;
      }
      ReadView view;
      ASSERT_EQ(LoadReadOnly(dir->path(), &view).ToString(), "OK");
      Model found;
      ASSERT_TRUE(ForEachLive(view, "", "", 1000000, [&](auto key, auto value) {
                    return found.emplace(key, value).second;
                  }).ok());
      ExpectHolds(found);
    }
    ExpectRecovers();
  }
  EXPECT_GT(crashes, rounds);
  std::cout << rounds << " workloads, " << crashes << " crashes, first seed " << seed << "\n";
}

}  // namespace
}  // namespace kandb::lsm
