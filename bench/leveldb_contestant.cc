#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>

#include "bench_program.h"
#include "contestant.h"

namespace kandb::bench {
namespace {

leveldb::Slice ToSlice(std::string_view bytes) { return {bytes.data(), bytes.size()}; }
std::string_view ToView(const leveldb::Slice& slice) { return {slice.data(), slice.size()}; }

class LevelDb final : public Contestant {
 public:
  explicit LevelDb(const ContestantOptions& contestant_options)
      : cache(leveldb::NewLRUCache(std::size_t{512} << 20)),
        filter(leveldb::NewBloomFilterPolicy(10)) {
    leveldb::Options options;
    options.create_if_missing = true;
    options.compression = leveldb::kNoCompression;
    options.write_buffer_size = contestant_options.write_buffer_size;
    options.block_cache = cache.get();
    options.filter_policy = filter.get();
    options.reuse_logs = true;  // a recovered memtable is kept and not flushed, as here
    write_options.sync = contestant_options.sync;
    leveldb::DB* opened = nullptr;
    const leveldb::Status status =
        leveldb::DB::Open(options, contestant_options.directory, &opened);
    Check(status.ok(), status.ToString());
    db.reset(opened);
  }

  void Put(std::string_view key, std::string_view value) override {
    const leveldb::Status status = db->Put(write_options, ToSlice(key), ToSlice(value));
    Check(status.ok(), status.ToString());
  }

  bool Get(std::string_view key, std::string* value) override {
    const leveldb::Status status = db->Get({}, ToSlice(key), value);
    Check(status.ok() || status.IsNotFound(), status.ToString());
    return status.ok();
  }

  ScanResult Scan() override {
    ScanResult result;
    const std::unique_ptr<leveldb::Iterator> at(db->NewIterator({}));
    for (at->SeekToFirst(); at->Valid(); at->Next()) {
      result.Add(ToView(at->key()), ToView(at->value()));
    }
    Check(at->status().ok(), at->status().ToString());
    return result;
  }

  void Compact() override { db->CompactRange(nullptr, nullptr); }

 private:
  const std::unique_ptr<leveldb::Cache> cache;
  const std::unique_ptr<const leveldb::FilterPolicy> filter;
  leveldb::WriteOptions write_options;
  std::unique_ptr<leveldb::DB> db;
};

}  // namespace

std::unique_ptr<Contestant> OpenLevelDb(const ContestantOptions& options) {
  return std::make_unique<LevelDb>(options);
}

}  // namespace kandb::bench
