#include "kandb_ctl/local_server.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <system_error>

namespace kandb::ctl {

namespace {

// A file as /proc/locks names it; empty when there is none.
std::string LockedName(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return "";
  char name[64];
  (void)std::snprintf(name, sizeof(name), "%02x:%02x:%llu", major(info.st_dev), minor(info.st_dev),
                      static_cast<unsigned long long>(info.st_ino));
  return name;
}

// Hands every lock of the kind that servers take to `visit`, which returns true to stop.
void ForEachLock(
    const std::function<bool(const std::string& pid, const std::string& file)>& visit) {
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, mode, access, pid, file;
    words >> number >> kind >> mode >> access >> pid >> file;
    if (kind == "FLOCK" && visit(pid, file)) return;
  }
}

// The sockets that listen on the port, as links in /proc/PID/fd name them.
std::set<std::string> Listeners(unsigned long port) {
  std::set<std::string> sockets;
  std::ifstream lines("/proc/net/tcp");
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string slot, local, remote, state, queues, timer, retransmits, user, timeout, inode;
    words >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> user >>
        timeout >> inode;
    constexpr std::size_t kPortOffset = 9;  // after the address in 8 digits and a colon
    const bool listens = state == "0A" && local.size() > kPortOffset;
    if (listens && std::stoul(local.substr(kPortOffset), nullptr, 16) == port) {
      sockets.insert("socket:[" + inode + "]");
    }
  }
  return sockets;
}

}  // namespace

std::optional<std::string> LockHolder(const std::string& dir) {
  std::optional<std::string> holder;
  const std::string wanted = LockedName(dir);
  ForEachLock([&](const std::string& pid, const std::string& file) {
    if (file == wanted) holder = pid;
    return holder.has_value();
  });
  return holder;
}

std::optional<std::string> FindDataDir(const std::string& server) {
  const std::size_t colon = server.rfind(':');
  if (!server.starts_with("127.") && server.substr(0, colon) != "localhost") return std::nullopt;
  const std::set<std::string> listeners = Listeners(std::stoul(server.substr(colon + 1)));
  std::optional<std::string> found;
  ForEachLock([&](const std::string& pid, const std::string& file) {
    bool listens = false;
    std::string dir;
    std::error_code error;
    std::filesystem::directory_iterator files("/proc/" + pid + "/fd", error);
    for (; !error && files != std::filesystem::directory_iterator(); files.increment(error)) {
      std::error_code gone;
      const std::string target = std::filesystem::read_symlink(files->path(), gone);
      listens = listens || listeners.contains(target);
      if (LockedName(files->path()) == file && LockedName(target) == file) dir = target;
    }
    if (listens && std::filesystem::is_directory(dir, error)) found = dir;
    return found.has_value();
  });
  return found;
}

}  // namespace kandb::ctl
