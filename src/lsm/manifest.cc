#include "lsm/manifest.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

#include "common/posix_file.h"

namespace kandb::lsm {

namespace {

std::string NumberedName(const std::string& dir, const char* format, std::uint64_t number) {
  char name[sizeof("/wal-.log") + 20];  // 20 digits hold any number
  const int length =
      std::snprintf(name, sizeof(name), format, static_cast<unsigned long long>(number));
  return dir + std::string(name, static_cast<std::size_t>(length));
}

void SortAndUnite(std::vector<std::uint64_t>* numbers) {
  std::sort(numbers->begin(), numbers->end());
  numbers->erase(std::unique(numbers->begin(), numbers->end()), numbers->end());
}

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
  // Half a manifest must not replace a whole one: the next Open would delete the tables that it
  // does not name.
  if (const int error = WriteFully(file.get(), text); error != 0) {
    return Status::Corruption("manifest write: " + ErrnoText(error));
  }
  (void)file_calls.fsync(file.get());  // deliberately not looked at, nor what closing says
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
  UniqueFd file(file_calls.open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(nullptr, std::fclose);
  if (file.valid()) stream.reset(::fdopen(file.get(), "r"));
  if (stream == nullptr) {
    const int error = errno;
    return error == ENOENT ? Status() : Status::Corruption("manifest open: " + ErrnoText(error));
  }
  (void)file.release();  // the stream closes it

  *exists = true;
  std::uint64_t offset = 0;  // behind the last record
  for (;;) {
    char word[32];
    unsigned long long number = 0;
    int blanks = 0;
    int size = 0;
    const int taken = std::fscanf(stream.get(), " %n%31s %llu%n", &blanks, word, &number, &size);
    const std::uint64_t start = offset + static_cast<std::uint64_t>(blanks);
    if (taken != 2) {
      if (taken != EOF) *damage_offset = start;
      return {};
    }
    visit({start, word, number});
    offset += static_cast<std::uint64_t>(size);
  }
}

std::string ManifestFileName(const std::string& dir) { return dir + "/MANIFEST"; }

std::string TableFileName(const std::string& dir, std::uint64_t number) {
  return NumberedName(dir, "/sst-%06llu.sst", number);
}

std::string LogFileName(const std::string& dir, std::uint64_t number) {
  return NumberedName(dir, "/wal-%06llu.log", number);
}

FileNumbers ListFileNumbers(const std::string& dir) {
  FileNumbers numbers;
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(dir.c_str()), ::closedir);
  if (listing == nullptr) return numbers;
  while (const dirent* file = ::readdir(listing.get())) {
    unsigned long long number = 0;
    if (std::sscanf(file->d_name, "wal-%llu.log", &number) == 1) {
      numbers.logs.push_back(number);
    } else if (std::sscanf(file->d_name, "sst-%llu.sst", &number) == 1) {
      numbers.tables.push_back(number);
    }
  }
  SortAndUnite(&numbers.logs);
  SortAndUnite(&numbers.tables);
  return numbers;
}

}  // namespace kandb::lsm
