// What the engine is compared with, and the engine, behind one interface. Every failure is an
// exception.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kandb::bench {

// What a scan saw. Touches every key and value, as a caller would.
struct ScanResult {
  std::uint64_t records = 0;
  std::uint64_t sum = 0;

  void Add(std::string_view key, std::string_view value) {
    ++records;
    sum += key.size() + value.size() + static_cast<unsigned char>(key.back()) +
           static_cast<unsigned char>(value.front()) + static_cast<unsigned char>(value.back());
  }
};

class Contestant {
 public:
  virtual ~Contestant() = default;  // closes without a flush

  virtual void Put(std::string_view key, std::string_view value) = 0;  // from any thread
  virtual bool Get(std::string_view key, std::string* value) = 0;      // from any thread
  virtual ScanResult Scan() = 0;  // all records by ascending keys
  // Puts all records into table files and merges these into one.
  virtual void Compact() {}
};

struct ContestantOptions {
  std::string directory;                                  // exists
  bool sync = false;                                      // a put is durable when it returns
  std::size_t write_buffer_size = std::size_t{64} << 20;  // bytes
};

std::unique_ptr<Contestant> OpenEngine(const ContestantOptions& options);

// Public engines of this kind, with a filter, no compression, and a cache that holds everything.
std::unique_ptr<Contestant> OpenLevelDb(const ContestantOptions& options);  // maps its tables
std::unique_ptr<Contestant> OpenRocksDb(const ContestantOptions& options);  // positioned reads
inline constexpr int kFilterBitsPerKey = 10;
inline constexpr std::size_t kBlockCacheSize = std::size_t{512} << 20;  // bytes

// Not an engine but the limit of one: a file of checked records with one write a record and one
// fdatasync a group; a scan walks over contiguous records, which must have been put in key order;
// a get asks a hash table.
std::unique_ptr<Contestant> OpenRawLog(const ContestantOptions& options);
// The same in a file whose blocks were allocated before, for puts alone. KeepSize: its size grows
// with the records, as without that. Zeroed: it has been written in full, so that a sync finds no
// change but the data.
std::unique_ptr<Contestant> OpenKeepSizeLog(const ContestantOptions& options);
std::unique_ptr<Contestant> OpenZeroedLog(const ContestantOptions& options);
inline constexpr std::size_t kPreallocatedSize = std::size_t{64} << 20;  // bytes

}  // namespace kandb::bench
