#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>

#include "public_engine.h"

namespace kandb::bench {
namespace {

struct LevelDbLibrary {
  using Db = leveldb::DB;
  using Iterator = leveldb::Iterator;
  using ReadOptions = leveldb::ReadOptions;
  using WriteOptions = leveldb::WriteOptions;
  using Slice = leveldb::Slice;
  using Status = leveldb::Status;
};

class LevelDb final : public PublicEngine<LevelDbLibrary> {
 public:
  explicit LevelDb(const ContestantOptions& contestant_options)
      : cache(leveldb::NewLRUCache(kBlockCacheSize)),
        filter(leveldb::NewBloomFilterPolicy(kFilterBitsPerKey)) {
    leveldb::Options options;
    options.create_if_missing = true;
    options.compression = leveldb::kNoCompression;
    options.write_buffer_size = contestant_options.write_buffer_size;
    options.block_cache = cache.get();
    options.filter_policy = filter.get();
    options.reuse_logs = true;  // a recovered memtable is kept and not flushed, as here
    write_options.sync = contestant_options.sync;
    leveldb::DB* opened = nullptr;
    Must(leveldb::DB::Open(options, contestant_options.directory, &opened));
    db.reset(opened);
  }
  ~LevelDb() override { db = nullptr; }  // before its cache

  void Compact() override { db->CompactRange(nullptr, nullptr); }

 private:
  const std::unique_ptr<leveldb::Cache> cache;
  const std::unique_ptr<const leveldb::FilterPolicy> filter;
};

}  // namespace

std::unique_ptr<Contestant> OpenLevelDb(const ContestantOptions& options) {
  return std::make_unique<LevelDb>(options);
}

}  // namespace kandb::bench
