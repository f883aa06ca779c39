#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/table.h>

#include "public_engine.h"

namespace kandb::bench {
namespace {

struct RocksDbLibrary {
  using Db = rocksdb::DB;
  using Iterator = rocksdb::Iterator;
  using ReadOptions = rocksdb::ReadOptions;
  using WriteOptions = rocksdb::WriteOptions;
  using Slice = rocksdb::Slice;
  using Status = rocksdb::Status;
};

class RocksDb final : public PublicEngine<RocksDbLibrary> {
 public:
  explicit RocksDb(const ContestantOptions& contestant_options) {
    rocksdb::BlockBasedTableOptions table;
    table.block_cache = rocksdb::NewLRUCache(kBlockCacheSize);
    table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(kFilterBitsPerKey));
    rocksdb::Options options;
    options.create_if_missing = true;
    options.compression = rocksdb::kNoCompression;
    options.write_buffer_size = contestant_options.write_buffer_size;
    options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
    options.avoid_flush_during_recovery = true;  // a recovered memtable is kept, as here
    options.avoid_flush_during_shutdown = true;
    write_options.sync = contestant_options.sync;
    rocksdb::DB* opened = nullptr;
    Must(rocksdb::DB::Open(options, contestant_options.directory, &opened));
    db.reset(opened);
  }

  void Compact() override { Must(db->CompactRange({}, nullptr, nullptr)); }
};

}  // namespace

std::unique_ptr<Contestant> OpenRocksDb(const ContestantOptions& options) {
  return std::make_unique<RocksDb>(options);
}

}  // namespace kandb::bench
