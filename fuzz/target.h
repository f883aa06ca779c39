// What the fuzz targets share. A target is one file that defines TryInput for one reader.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "common/posix_file.h"

namespace kandb::fuzz {

// Tries one input, which lives during the call.
void TryInput(std::string_view input);

// Ends the process, which the fuzzer takes for a crash, unless what is claimed at that line holds.
inline void Claim(bool holds, int line = __builtin_LINE()) {
  if (holds) return;
  ::dprintf(STDERR_FILENO, "the claim in line %d does not hold\n", line);
  std::abort();
}

// A file that readers open by its path and that ends with its object.
class MemoryFile {
 public:
  explicit MemoryFile(std::string_view content) : file(::memfd_create("input", MFD_CLOEXEC)) {
    Claim(WriteFully(file.get(), content) == 0);
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(file.get()); }

 private:
  const UniqueFd file;
};

}  // namespace kandb::fuzz

extern "C" [[gnu::used]] inline int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  kandb::fuzz::TryInput({data, size});
  return 0;
}
