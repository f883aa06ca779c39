#include <limits>
#include <vector>

#include "bench_program.h"
#include "contestant.h"
#include "lsm/lsm_db.h"

namespace kandb::bench {
namespace {

class Engine final : public Contestant {
 public:
  explicit Engine(const ContestantOptions& contestant_options) : options(contestant_options) {
    Open(options.write_buffer_size, 8);
  }

  void Put(std::string_view key, std::string_view value) override {
    // Each thread's own, so that its memory is used again, as a server's buffers are.
    thread_local std::vector<lsm::Entry> batch(1);
    batch[0].key = key;
    batch[0].value = value;
    Must(db->Write(batch));
  }

  bool Get(std::string_view key, std::string* value) override {
    bool found = false;
    Must(db->Get(key, value, &found));
    return found;
  }

  ScanResult Scan() override {
    ScanResult result;
    const auto add = [&](std::string_view key, std::string_view value) {
      result.Add(key, value);
      return true;
    };
    Must(db->ForEach("", "", std::numeric_limits<std::uint32_t>::max(), add));
    return result;
  }

  // The first write after opening flushes all that the logs held; more than one table is merged.
  void Compact() override {
    Open(1, 1);
    Must(db->Write({{lsm::kDelete, "no such key", ""}}));
    db->WaitForBackgroundIdle();
    Open(options.write_buffer_size, 8);
  }

 private:
  static void Must(const Status& status) { Check(status.ok(), status.ToString()); }

  void Open(std::uint64_t write_buffer_size, std::uint64_t max_table_files) {
    db = nullptr;
    Must(lsm::LsmDb::Open(options.directory,
                          {.write_buffer_size = write_buffer_size,
                           .max_table_files = max_table_files,
                           .sync = options.sync},
                          &db));
  }

  const ContestantOptions options;
  std::unique_ptr<lsm::LsmDb> db;
};

}  // namespace

std::unique_ptr<Contestant> OpenEngine(const ContestantOptions& options) {
  return std::make_unique<Engine>(options);
}

}  // namespace kandb::bench
