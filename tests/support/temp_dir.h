// A temporary directory, removed with its contents.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kandb::testing {

class TempDir {
 public:
  TempDir() : dir((std::filesystem::temp_directory_path() / "kandb-test-XXXXXX").string()) {
    if (::mkdtemp(dir.data()) == nullptr) throw std::runtime_error("mkdtemp " + dir);
  }
  ~TempDir() { std::filesystem::remove_all(dir); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return dir; }
  std::string File(const std::string& name) const { return dir + "/" + name; }

 private:
  std::string dir;
};

inline void WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace kandb::testing
