#include "lsm/manifest.h"

#include <fcntl.h>

#include <cerrno>
#include <charconv>
#include <limits>
#include <system_error>
#include <utility>

#include "common/posix_file.h"
#include "lsm/file_names.h"

namespace kandb::lsm {

namespace {

// The whole file at `path`. It needs no limit: a manifest has one line for each live table.
Status ReadWhole(const std::string& path, std::string* text, bool* exists) {
  const UniqueFd file(file_calls.open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  if (!file.valid()) {
    const int error = errno;
    return error == ENOENT ? Status() : Status::Corruption("manifest open: " + ErrnoText(error));
  }
  constexpr std::size_t kPieceSize = 65536;  // bytes
  for (std::size_t count = kPieceSize; count == kPieceSize;) {
    const std::size_t size = text->size();
    text->resize(size + kPieceSize);
    int error = 0;
    count = ReadFully(file.get(), text->data() + size, kPieceSize, &error);
    if (error != 0) return Status::Corruption("manifest read: " + ErrnoText(error));
    text->resize(size + count);
  }
  *exists = true;
  return {};
}

bool IsBlank(char c) { return c == ' ' || ('\t' <= c && c <= '\r'); }

// Reads words and numbers from a text.
class Scanner {
 public:
  explicit Scanner(std::string_view scanned) : text(scanned) {}

  // Of the first byte not read yet.
  std::uint64_t offset() const { return at; }

  void SkipBlanks() {
    while (at < text.size() && IsBlank(text[at])) ++at;
  }

  // The bytes up to the next blank, 31 at most; empty at the end.
  std::string_view TakeWord() {
    const std::size_t start = at;
    while (at < text.size() && at - start < kMaxWordSize && !IsBlank(text[at])) ++at;
    return text.substr(start, at - start);
  }

  // A number after any blanks, modulo 2^64 with a minus sign; false when there is none.
  bool TakeNumber(std::uint64_t* number) {
    SkipBlanks();
    const bool negative = at < text.size() && text[at] == '-';
    if (negative || (at < text.size() && text[at] == '+')) ++at;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + at, end, *number);
    if (error == std::errc::invalid_argument) return false;
    at = static_cast<std::size_t>(rest - text.data());
    const bool overflow = error == std::errc::result_out_of_range;
    if (overflow) *number = std::numeric_limits<std::uint64_t>::max();
    if (negative && !overflow) *number = -*number;
    return true;
  }

 private:
  static constexpr std::size_t kMaxWordSize = 31;  // bytes

  const std::string_view text;
  std::size_t at = 0;
};

}  // namespace

Status WriteManifest(const std::string& dir, const ManifestState& state) {
  std::string text = "next_file " + std::to_string(state.next_file) + "\n";
  for (const std::uint64_t number : state.sst_files) text += "sst " + std::to_string(number) + "\n";

  const std::string path = ManifestFileName(dir);
  const std::string temporary = path + ".tmp";
  UniqueFd file(file_calls.open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!file.valid()) {
    const int error = errno;
    return Status::Corruption("manifest create: " + ErrnoText(error));
  }
  // A partial manifest must not replace a whole one: the next Open would delete the tables that it
  // does not name.
  if (const int error = WriteFully(file.get(), text); error != 0) {
    return Status::Corruption("manifest write: " + ErrnoText(error));
  }
  (void)file_calls.fsync(file.get());  // its result is ignored on purpose, as that of closing is
  file.Reset();
  if (file_calls.rename(temporary.c_str(), path.c_str()) != 0) {
    return Status::Corruption("manifest rename failed");
  }
  return {};
}

Status ReadManifest(const std::string& dir, ManifestState* state, bool* exists) {
  std::vector<std::uint64_t> sst_files;
  const auto take = [&](const ManifestRecord& record) {
    if (record.word == "next_file") state->next_file = record.number;
    if (record.word == "sst") sst_files.push_back(record.number);
  };
  std::optional<std::uint64_t> damage_offset;
  if (Status s = ForEachManifestRecord(ManifestFileName(dir), take, exists, &damage_offset);
      !s.ok()) {
    return s;
  }
  if (*exists) state->sst_files = std::move(sst_files);
  return {};
}

Status ForEachManifestRecord(const std::string& path,
                             const std::function<void(const ManifestRecord&)>& visit, bool* exists,
                             std::optional<std::uint64_t>* damage_offset) {
  *exists = false;
  damage_offset->reset();
  std::string text;
  if (Status s = ReadWhole(path, &text, exists); !s.ok()) return s;
  Scanner scanner(text);
  for (;;) {
    scanner.SkipBlanks();
    ManifestRecord record = {.offset = scanner.offset(), .word = scanner.TakeWord(), .number = 0};
    if (record.word.empty()) return {};
    if (!scanner.TakeNumber(&record.number)) {
      *damage_offset = record.offset;
      return {};
    }
    record.word = record.word.substr(0, record.word.find('\0'));
    visit(record);
  }
}

}  // namespace kandb::lsm
