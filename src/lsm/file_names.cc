#include "lsm/file_names.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

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

std::string ManifestFileName(const std::string& dir) { return dir + "/MANIFEST"; }

std::string TableFileName(const std::string& dir, std::uint64_t number) {
  return NumberedName(dir, "/sst-%06llu.sst", number);
}

std::string LogFileName(const std::string& dir, std::uint64_t number) {
  return NumberedName(dir, "/wal-%06llu.log", number);
}

Status ListFileNumbers(const std::string& dir, FileNumbers* numbers) {
  *numbers = {};
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(file_calls.opendir(dir.c_str()), ::closedir);
  if (listing == nullptr) return {};
  for (;;) {
    errno = 0;
    const dirent* file = file_calls.readdir(listing.get());
    if (file == nullptr) break;
    unsigned long long number = 0;
    if (std::sscanf(file->d_name, "wal-%llu.log", &number) == 1) {
      if (number < kMaxFileNumber) numbers->logs.push_back(number);
    } else if (std::sscanf(file->d_name, "sst-%llu.sst", &number) == 1) {
      if (number < kMaxFileNumber) numbers->tables.push_back(number);
    }
  }
  if (const int error = errno; error != 0) {
    return Status::Corruption("list " + dir + ": " + ErrnoText(error));
  }
  SortAndUnite(&numbers->logs);
  SortAndUnite(&numbers->tables);
  return {};
}

}  // namespace kandb::lsm
