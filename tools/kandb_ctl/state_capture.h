// The files of a state directory as they were at one moment, while a server runs on it. Open
// descriptors keep them: the server may delete the files meanwhile, and waits for nothing.
//
// What makes a set of files one state: the engine deletes WALs only after it replaced the manifest,
// from the oldest on, and no two manifests are the same. So when the manifest is the same before
// all WALs were listed and opened and after it, these continue the tables that it names. Only the
// newest WAL still grows, and any prefix of its records is a state that the server has had.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "common/posix_file.h"
#include "common/status.h"

namespace kandb::ctl {

struct CapturedFile {
  std::string name;
  UniqueFd file;

  // A path to it, for this process.
  std::string path() const { return "/proc/self/fd/" + std::to_string(file.get()); }
};

struct StateCapture {
  std::chrono::system_clock::time_point taken_at;
  std::vector<CapturedFile> manifest;  // at most one: a copy
  std::vector<CapturedFile> tables;    // in the manifest's order; one that is missing is left out
  std::vector<CapturedFile> logs;      // ascending; the newest is a copy up to its last whole
                                       // record, unless what follows is damage
};

// Starts again when files change meanwhile. Fails when a file cannot be opened or read, and
// Corruption when the files change all the time.
Status TakeCapture(const std::string& dir, StateCapture* capture);

// A directory to read: that of a stopped server itself, or links to the captured files of a running
// one, removed with the object.
class ReadableDirectory {
 public:
  ReadableDirectory() = default;
  ~ReadableDirectory();
  ReadableDirectory(const ReadableDirectory&) = delete;
  ReadableDirectory& operator=(const ReadableDirectory&) = delete;

  // With `live` takes no lock. Otherwise refuses the directory of a running server.
  Status Open(const std::string& dir, bool live);

  const std::string& path() const { return directory; }
  // When a running server's files were captured, in UTC; otherwise empty.
  const std::string& live_at() const { return captured_at; }

 private:
  std::string directory;
  bool temporary = false;
  std::string captured_at;
  StateCapture capture;
  std::vector<std::string> links;
};

}  // namespace kandb::ctl
