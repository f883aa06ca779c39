// The store of the cluster's metadata: one engine, its options, and the sealing of values.
// Thread-safe. Failures are those of the engine and of the envelope (store/value_envelope.h),
// unchanged; std::bad_alloc is thrown when there is no memory.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/status.h"
#include "store/meta_view.h"

namespace kandb::lsm {
class LsmDb;
}  // namespace kandb::lsm

namespace kandb::store {

struct StoreCrypto;

// The engine's limits.
inline constexpr std::uint64_t kWriteBufferSize = std::uint64_t{64} << 20;  // bytes in a memtable
inline constexpr std::uint64_t kMaxTableFiles = 8;  // more are compacted into one

using KeyValue = std::pair<std::string, std::string>;

class MetaStore {
  struct Private {};  // only Open can make one

 public:
  // Opens the store on `directory`, which is created when missing. A non-empty passphrase seals
  // every value under a key derived from it; another passphrase is not noticed here: the values
  // fail to open, each when it is read. With `sync` not 0 every write is durable when it returns.
  // On success `*out` is replaced and the store it held before is destroyed.
  static Status Open(const std::string& directory, const std::string& passphrase, int sync,
                     std::unique_ptr<MetaStore>* out);

  MetaStore(Private, const std::string& passphrase);
  ~MetaStore();

  // `*value` is set only when `*found`; a missing key is no failure.
  Status Get(std::string_view key, std::string* value, bool* found) const;

  // Each of these is one batch: applied as a whole, and whole or missing after a crash. Write
  // applies the puts before the deletes.
  Status Put(std::vector<KeyValue> puts);
  Status Delete(std::vector<std::string> keys);
  Status Write(std::vector<KeyValue> puts, std::vector<std::string> deletes);

  // Appends the pairs of MetaView::ForEach to `*out`; after a failure, those before it.
  Status Scan(std::string_view start, std::string_view end, std::uint32_t limit,
              std::vector<KeyValue>* out) const;

  // For several reads. Every write that has returned is in the view.
  MetaView CaptureView() const;

 private:
  // Never change after Open.
  std::unique_ptr<lsm::LsmDb> db;
  const std::unique_ptr<const StoreCrypto> crypto;
};

}  // namespace kandb::store
