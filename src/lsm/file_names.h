// The names of the numbered files of an engine, and the listing of its directory.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "common/status.h"

namespace kandb::lsm {

// Numbers are below this, so that they never overflow: no engine gets that far. A name with a
// number from here on is a foreign one; a manifest that says `next_file` is above fails the start.
inline constexpr std::uint64_t kMaxFileNumber = std::numeric_limits<std::uint64_t>::max() / 2;

// The paths of the manifest, of a table and of a write-ahead log: "MANIFEST", "sst-000007.sst",
// "wal-000007.log" (six digits or more) in `dir`.
std::string ManifestFileName(const std::string& dir);
std::string TableFileName(const std::string& dir, std::uint64_t number);
std::string LogFileName(const std::string& dir, std::uint64_t number);

// The numbers of the numbered files in a directory, ascending, each once. Whatever follows the
// digits of a name is ignored.
struct FileNumbers {
  std::vector<std::uint64_t> logs;
  std::vector<std::uint64_t> tables;
};
// A directory that cannot be opened for listing has no files. Corruption "list <dir>: " and the
// system's text when listing it fails later: files that are there must not count as missing.
Status ListFileNumbers(const std::string& dir, FileNumbers* numbers);

}  // namespace kandb::lsm
