// Figures about a process, from /proc.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace kandb::testing {

// The number of a line of /proc/<pid>/status, sizes in kB: "VmRSS", "VmHWM", "VmSize", "Threads".
inline long ProcStatus(pid_t pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; file >> word;) {
    long number = -1;
    if (word == name + ":" && file >> number) return number;
  }
  return -1;
}

inline long OpenFiles(pid_t pid) {
  const std::filesystem::directory_iterator files("/proc/" + std::to_string(pid) + "/fd");
  return std::distance(begin(files), end(files));
}

}  // namespace kandb::testing
