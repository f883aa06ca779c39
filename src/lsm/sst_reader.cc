#include "lsm/sst_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace kandb::lsm {

namespace {

// Reads exactly `size` bytes.
Status ReadAt(int file, std::uint64_t offset, std::size_t size, char* buffer) {
  const ssize_t count = PreadFully(file, buffer, size, offset);
  if (count < 0) {
    const int error = errno;
    return Status::Corruption("sst pread: " + ErrnoText(error));
  }
  if (static_cast<std::size_t>(count) < size) return Status::Corruption("sst: unexpected EOF");
  return {};
}

}  // namespace

Status SstReader::Open(const std::string& path, std::shared_ptr<SstReader>* reader) {
  auto opened = std::make_shared<SstReader>();
  if (Status s = opened->ReadFooter(path); !s.ok()) return s;
  const TableFooter& footer = opened->footer;
  if (Status s = opened->ReadBlock(footer.index_offset, footer.index_size, &opened->index_block);
      !s.ok()) {
    return s;
  }
  if (Status s = DecodeIndex(opened->index_block, &opened->index); !s.ok()) return s;
  std::string filter_block;
  if (Status s = opened->ReadBlock(footer.filter_offset, footer.filter_size, &filter_block);
      !s.ok()) {
    return s;
  }
  opened->filter.emplace(std::move(filter_block));
  *reader = std::move(opened);
  return {};
}

Status SstReader::ReadFooter(const std::string& path) {
  file = UniqueFd(file_calls.open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  const off_t size = file.valid() ? file_calls.lseek(file.get(), 0, SEEK_END) : -1;
  if (size < 0) {
    const int error = errno;
    return Status::Corruption("sst open " + path + ": " + ErrnoText(error));
  }
  file_size = static_cast<std::uint64_t>(size);
  if (file_size < kFooterSize) return Status::Corruption("sst too small: " + path);

  char bytes[kFooterSize];
  if (Status s = ReadAt(file.get(), file_size - kFooterSize, kFooterSize, bytes); !s.ok()) return s;
  return DecodeFooter({bytes, kFooterSize}, &footer);
}

Status SstReader::ReadBlock(std::uint64_t offset, std::uint64_t size, std::string* block) const {
  if (size == 0) return {};
  if (offset > file_size || size > file_size - offset) {
    return Status::Corruption("sst: unexpected EOF");
  }
  block->resize(size);
  return ReadAt(file.get(), offset, size, block->data());
}

SstReader::Section SstReader::FindSection(std::string_view target) const {
  // An empty target begins before every key, the empty one included.
  const auto after = target.empty()
                         ? index.begin()
                         : std::upper_bound(index.begin(), index.end(), target,
                                            [](std::string_view key, const IndexElement& element) {
                                              return key < element.key;
                                            });
  const std::uint64_t begin = after == index.begin() ? 0 : std::prev(after)->offset;
  const std::uint64_t end = after == index.end() ? footer.index_offset : after->offset;
  return {begin, end};
}

Status SstReader::Get(std::string_view key, bool* found, std::uint8_t* op,
                      std::string* value) const {
  *found = false;
  if (!filter->MayContain(key)) return {};

  // One read covers the section. In a damaged index its end may come before its begin.
  const Section section = FindSection(key);
  const std::uint64_t section_size = section.end > section.begin ? section.end - section.begin : 1;
  Iterator iterator(this, std::min<std::uint64_t>(section_size, Iterator::kMaxReadSize));
  iterator.Seek(key);
  if (!iterator.valid() || iterator.entry().key != key) return iterator.status();
  *found = true;
  *op = iterator.entry().op;
  if (*op == kPut) *value = iterator.entry().value;
  return {};
}

void SstReader::Iterator::Seek(std::string_view target) {
  failure = {};
  buffered = {};
  buffer.Clear();
  ahead = {};
  next_offset = reader->FindSection(target).begin;
  // Entry by entry: most of those before the target are never looked at again.
  while (ReadEntry(entries)) {
    if (entries[0].key < target) continue;
    buffered = {entries, 1};
    return;
  }
}

std::uint64_t SstReader::Iterator::offset() const {
  if (!valid()) return next_offset;
  return next_offset - static_cast<std::uint64_t>(ahead.data() - EncodedStart(entry()));
}

void SstReader::Iterator::Refill() {
  if (!ReadEntry(entries)) return;
  std::size_t count = 1;
  std::size_t size = 0;
  std::string_view rest = ahead;
  while (count < kBatchSize && ParseEntry(rest, &entries[count], &size) == EntryDefect::kNone) {
    rest.remove_prefix(size);
    ++count;
  }
  MoveTo(rest);
  buffered = {entries, count};
}

bool SstReader::Iterator::ReadEntry(EntryView* entry) {
  while (next_offset < reader->footer.index_offset) {
    std::size_t size = 0;
    const EntryDefect defect = ParseEntry(ahead, entry, &size);
    if (defect == EntryDefect::kNone) {
      MoveTo(ahead.substr(size));
      return true;
    }
    failure = defect == EntryDefect::kBadOp ? Status::Corruption("sst bad record op") : Fill(size);
    if (!failure.ok()) return false;
  }
  return false;
}

void SstReader::Iterator::MoveTo(std::string_view rest) {
  next_offset += ahead.size() - rest.size();
  ahead = rest;
}

Status SstReader::Iterator::Fill(std::size_t size) {
  const std::uint64_t data_left = reader->footer.index_offset - next_offset;
  if (size > data_left) return Status::Corruption("sst record truncated");
  const std::uint64_t data_in_file = reader->file_size - std::min(next_offset, reader->file_size);
  if (size > data_in_file) return Status::Corruption("sst: unexpected EOF");

  const std::size_t unparsed = ahead.size();
  buffer.Consume(buffer.unread().size() - unparsed);
  const std::size_t wanted = std::max(size, read_size);
  read_size = std::max(read_size, std::min(2 * read_size, kMaxReadSize));
  const auto end =
      static_cast<std::size_t>(std::min<std::uint64_t>({wanted, data_left, data_in_file}));
  char* room = buffer.Reserve(end - unparsed);
  if (Status s = ReadAt(reader->file.get(), next_offset + unparsed, end - unparsed, room);
      !s.ok()) {
    return s;
  }
  buffer.Commit(end - unparsed);
  ahead = buffer.unread();
  return {};
}

}  // namespace kandb::lsm
