#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "bench_program.h"
#include "common/endian.h"
#include "common/posix_file.h"
#include "contestant.h"
#include "crypto/crc32c.h"

namespace kandb::bench {
namespace {

//   record:  CRC-32C of the rest (4), key length (4), value length (4), key, value
constexpr std::size_t kHeaderSize = 12;

struct Record {
  explicit Record(const char* start)
      : key(start + kHeaderSize, LoadU32(start + 4)),
        value(key.data() + key.size(), LoadU32(start + 8)) {}

  std::string_view key;
  std::string_view value;
};

enum class Allocation { kAsWritten, kKeepSize, kZeroed };

class RawLog final : public Contestant {
 public:
  RawLog(const ContestantOptions& options, Allocation allocation) : sync(options.sync) {
    const std::string path = options.directory + "/raw.log";
    const int append = allocation == Allocation::kZeroed ? 0 : O_APPEND;
    file = UniqueFd(::open(path.c_str(), O_RDWR | O_CREAT | append | O_CLOEXEC, 0644));
    Check(file.valid(), "open " + path);
    if (allocation == Allocation::kAsWritten) {
      Recover();
    } else {
      Preallocate(allocation);
    }
  }

  void Put(std::string_view key, std::string_view value) override {
    std::string record = Encode(key, value);
    if (!sync) return Write(record);
    std::unique_lock<std::mutex> lock(mutex);
    queue.push_back(std::move(record));
    const std::uint64_t group = collecting_group;
    while (leading && committed_group < group) committed[group % 2].wait(lock);
    if (committed_group >= group) return;
    leading = true;
    const std::vector<std::string> batch = std::exchange(queue, {});
    ++collecting_group;
    lock.unlock();
    for (const std::string& each : batch) Write(each);
    Check(::fdatasync(file.get()) == 0, "fdatasync");
    lock.lock();
    leading = false;
    committed_group = group;
    lock.unlock();
    committed[(group + 1) % 2].notify_one();  // the next leader
    committed[group % 2].notify_all();
  }

  // Of the records that were there when the log was opened, or compacted.
  bool Get(std::string_view key, std::string* value) override {
    std::call_once(indexed, [this] {
      ForEach([&](const Record& record) { index.emplace(record.key, record.value); });
    });
    const auto found = index.find(key);
    if (found == index.end()) return false;
    *value = found->second;
    return true;
  }

  ScanResult Scan() override {
    ScanResult result;
    ForEach([&](const Record& record) { result.Add(record.key, record.value); });
    return result;
  }

  // Before the first Get.
  void Compact() override { Recover(); }

 private:
  static std::string Encode(std::string_view key, std::string_view value) {
    std::string record(4, '\0');
    AppendU32(static_cast<std::uint32_t>(key.size()), &record);
    AppendU32(static_cast<std::uint32_t>(value.size()), &record);
    record.append(key).append(value);
    StoreLittleEndian(crypto::Crc32c(std::string_view(record).substr(4)), record.data());
    return record;
  }

  void Preallocate(Allocation allocation) {
    if (allocation == Allocation::kKeepSize) {
      Check(::fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, kPreallocatedSize) == 0, "fallocate");
    } else {
      Check(WriteFully(file.get(), std::string(kPreallocatedSize, '\0')) == 0, "write");
    }
    Check(::fsync(file.get()) == 0 && ::lseek(file.get(), 0, SEEK_SET) == 0, "fsync");
  }

  void Write(std::string_view record) { Check(WriteFully(file.get(), record) == 0, "write"); }

  // Reads the file and checks every record: the limit of a recovery.
  void Recover() {
    buffer.resize(static_cast<std::size_t>(::lseek(file.get(), 0, SEEK_END)));
    const ssize_t count = PreadFully(file.get(), buffer.data(), buffer.size(), 0);
    Check(count == static_cast<ssize_t>(buffer.size()), "read");
    ForEach([&](const Record& record) {
      const char* const start = record.key.data() - kHeaderSize;
      const std::string_view checked(start + 4, record.key.size() + record.value.size() + 8);
      Check(crypto::Crc32c(checked) == LoadU32(start), "bad record");
    });
  }

  template <class Visit>
  void ForEach(Visit visit) const {
    const char* const end = buffer.data() + buffer.size();
    for (const char* at = buffer.data(); at != end;) {
      const Record record(at);
      visit(record);
      at = record.value.data() + record.value.size();
    }
  }

  const bool sync;
  UniqueFd file;
  std::string buffer;  // the file as it was when it was opened
  std::once_flag indexed;
  std::unordered_map<std::string_view, std::string_view> index;

  std::mutex mutex;  // guards what follows
  std::vector<std::string> queue;
  bool leading = false;
  std::uint64_t collecting_group = 1;
  std::uint64_t committed_group = 0;
  std::condition_variable committed[2];  // of even and of odd groups
};

}  // namespace

std::unique_ptr<Contestant> OpenRawLog(const ContestantOptions& options) {
  return std::make_unique<RawLog>(options, Allocation::kAsWritten);
}

std::unique_ptr<Contestant> OpenKeepSizeLog(const ContestantOptions& options) {
  return std::make_unique<RawLog>(options, Allocation::kKeepSize);
}

std::unique_ptr<Contestant> OpenZeroedLog(const ContestantOptions& options) {
  return std::make_unique<RawLog>(options, Allocation::kZeroed);
}

}  // namespace kandb::bench
