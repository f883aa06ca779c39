// The write-ahead log (WAL): a file of records, each one write batch, appended and then synced.
// There is no file header and no padding between records; numbers are little-endian.
//
//   offset   size  field
//   0        4     CRC-32C of the payload
//   4        4     L = payload length, at most 64 MiB
//   8        L     payload: an encoded batch (lsm/write_batch.h)
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "common/input_buffer.h"
#include "common/posix_file.h"
#include "common/status.h"
#include "lsm/entry.h"

namespace kandb::lsm {

// A replay treats a longer record as damage, so none may be written.
inline constexpr std::size_t kMaxLogPayloadSize = std::size_t{64} << 20;  // bytes
static_assert(kMaxLogPayloadSize <= std::numeric_limits<std::uint32_t>::max(),
              "the length of a record, of a key and of a value are 32-bit fields");

// The record of a batch whose encoding is within the limit.
std::string BuildLogRecord(const std::vector<Entry>& batch);

// A WAL open for appending; closes itself. One writer at a time.
class Log {
 public:
  // Writes a whole record. Corruption "wal write: " and the system's text; the file may then end
  // with a part of the record.
  Status Append(std::string_view record);

  // Flushes the file's data to stable storage. Corruption "wal fdatasync: " and the system's text.
  Status Sync();

  // Removes everything after the first `size` bytes, because writing it failed with `cause`: no
  // torn record may come before records that are acknowledged later. When the removal fails too,
  // every later Append fails with `cause`.
  void CutBack(std::uint64_t size, const Status& cause);

  // Bytes in the file.
  std::uint64_t size() const { return file_size; }

 private:
  friend Status OpenLogForAppend(const std::string& path, Log* log);

  UniqueFd file;
  std::uint64_t file_size = 0;
  Status failure;  // of a group whose remains could not be removed
};

// Opens or creates (0644) the WAL at `path`; `*log` is replaced on success, its old file closed.
// Corruption "wal open <path>: " and the system's text.
Status OpenLogForAppend(const std::string& path, Log* log);

// Reads the records of a WAL in order, in large pieces.
class LogReader {
 public:
  // Corruption "wal open <path>: " and the system's text; `*exists` tells whether there is a file.
  // A missing one is an empty WAL, not a failure.
  Status Open(const std::string& path, bool* exists);

  // Reads the next batch; false at the end of the WAL, which is the end of the file or the first
  // record that is damaged or cannot be read whole. The entries live until the next call.
  bool Next(std::vector<EntryView>* batch);

  // In the file: the end of the record that Next returned last; at the end of the WAL, the start of
  // the damage or the end of the file.
  std::uint64_t offset() const { return next_offset; }

  // At the end of the WAL: the defect of the record there, "wal read: " and the system's text when
  // reading it failed. OK at the end of the file.
  const Status& damage() const { return damage_status; }

 private:
  // Reads until `size` bytes are in the buffer; false when the file ends before, or reading fails.
  bool Fill(std::size_t size);
  // Ends the WAL with this damage; returns false.
  bool Stop(std::string damage);
  // The same after Fill, with the failure of reading instead if there was one.
  bool StopTorn(const char* damage);

  UniqueFd file;
  InputBuffer buffer;
  int read_error = 0;           // errno of the call that failed last
  std::size_t record_size = 0;  // of the record returned last, which is still in the buffer
  std::uint64_t next_offset = 0;
  Status damage_status;
};

// Hands every batch of the WAL to `apply`, in order; the entries live only during the call. The
// first damaged record ends the replay silently, as the end of the file does: a crash leaves such a
// record of a write that was never acknowledged. So does the first byte that cannot be read: the
// records before it are applied. A missing file is an empty log. Fails only as opening does.
Status ReplayLog(const std::string& path,
                 const std::function<void(const std::vector<EntryView>&)>& apply);

}  // namespace kandb::lsm
