#include "lsm/wal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "common/check.h"
#include "common/endian.h"
#include "crypto/crc32c.h"
#include "lsm/write_batch.h"

namespace kandb::lsm {

namespace {

constexpr std::size_t kRecordHeaderSize = 4 + 4;
constexpr std::size_t kReadSize = std::size_t{1} << 20;  // bytes that a replay reads at once

Status OpenFailure(const std::string& path, int error) {
  return Status::Corruption("wal open " + path + ": " + ErrnoText(error));
}

}  // namespace

std::string BuildLogRecord(const std::vector<Entry>& batch) {
  std::string record;
  record.reserve(kRecordHeaderSize + BatchSize(batch));
  record.assign(kRecordHeaderSize, '\0');
  AppendBatch(batch, &record);
  const std::string_view payload = std::string_view(record).substr(kRecordHeaderSize);
  KANDB_CHECK(payload.size() <= kMaxLogPayloadSize, payload.size());
  StoreLittleEndian(crypto::Crc32c(payload), record.data());
  StoreLittleEndian(static_cast<std::uint32_t>(payload.size()), record.data() + 4);
  return record;
}

Status Log::Append(std::string_view record) {
  if (!failure.ok()) return failure;
  if (const int error = WriteFully(file.get(), record); error != 0) {
    return Status::Corruption("wal write: " + ErrnoText(error));
  }
  file_size += record.size();
  return {};
}

Status Log::Sync() {
  if (file_calls.fdatasync(file.get()) != 0) {
    const int error = errno;
    return Status::Corruption("wal fdatasync: " + ErrnoText(error));
  }
  return {};
}

void Log::CutBack(std::uint64_t size, const Status& cause) {
  if (!failure.ok()) return;
  if (file_calls.ftruncate(file.get(), static_cast<off_t>(size)) != 0) {
    failure = CopyOrOutOfMemory(cause);
    return;
  }
  file_size = size;
}

Status OpenLogForAppend(const std::string& path, Log* log) {
  UniqueFd file(file_calls.open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!file.valid()) return OpenFailure(path, errno);
  const off_t size = file_calls.lseek(file.get(), 0, SEEK_END);
  if (size < 0) return OpenFailure(path, errno);
  log->file = std::move(file);
  log->file_size = static_cast<std::uint64_t>(size);
  log->failure = Status();
  return {};
}

Status LogReader::Open(const std::string& path, bool* exists) {
  file = UniqueFd(file_calls.open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  const int error = errno;
  *exists = file.valid();
  if (!file.valid()) return error == ENOENT ? Status() : OpenFailure(path, error);
  buffer.Reserve(kReadSize);
  return {};
}

bool LogReader::Next(std::vector<EntryView>* batch) {
  buffer.Consume(std::exchange(record_size, 0));
  if (!file.valid() || !damage_status.ok()) return false;
  if (!Fill(kRecordHeaderSize)) {
    if (buffer.unread().empty() && read_error == 0) return false;
    return StopTorn("torn record header");
  }
  const std::uint32_t crc = LoadU32(buffer.unread().data());
  const std::size_t length = LoadU32(buffer.unread().data() + 4);
  if (length > kMaxLogPayloadSize) return Stop("record too long");
  if (!Fill(kRecordHeaderSize + length)) return StopTorn("torn record");
  const std::string_view payload = buffer.unread().substr(kRecordHeaderSize, length);
  if (crypto::Crc32c(payload) != crc) return Stop("record crc mismatch");
  if (Status s = DecodeBatch(payload, batch); !s.ok()) return Stop(s.message());
  record_size = kRecordHeaderSize + length;
  next_offset += record_size;
  return true;
}

bool LogReader::Fill(std::size_t size) {
  while (buffer.unread().size() < size) {
    const std::size_t missing = size - buffer.unread().size();
    char* room = buffer.Reserve(missing);
    // A large read may fail for a byte far ahead. After that, each read ends with the record, so
    // that every record before the bad byte is replayed.
    const bool in_large_pieces = read_error == 0;
    const std::size_t wanted = in_large_pieces ? buffer.free_size() : missing;
    const std::size_t count = ReadFully(file.get(), room, wanted, &read_error);
    buffer.Commit(count);
    if (count < wanted && !(in_large_pieces && read_error != 0)) break;
  }
  return buffer.unread().size() >= size;
}

bool LogReader::Stop(std::string damage) {
  damage_status = Status::Corruption(std::move(damage));
  return false;
}

bool LogReader::StopTorn(const char* damage) {
  return Stop(read_error == 0 ? damage : "wal read: " + ErrnoText(read_error));
}

Status ReplayLog(const std::string& path,
                 const std::function<void(const std::vector<EntryView>&)>& apply) {
  LogReader reader;
  bool exists = false;
  if (Status s = reader.Open(path, &exists); !s.ok()) return s;
  std::vector<EntryView> batch;
  while (reader.Next(&batch)) apply(batch);
  return {};
}

}  // namespace kandb::lsm
