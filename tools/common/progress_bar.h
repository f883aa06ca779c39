// A bar on a terminal for work that takes long.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace kandb::tools {

// On standard error, if that is a terminal. Rewrites its line whenever the bar grows, and removes
// it at the end.
class ProgressBar {
 public:
  ProgressBar() = default;
  ~ProgressBar() {
    if (shown >= 0) std::fprintf(stderr, "\r\033[K");
  }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // `share`: 0 to 1.
  void Show(double share) {
    const int percent = static_cast<int>(share * 100);
    if (!watched || percent == shown) return;
    shown = percent;
    const std::string bar(static_cast<std::size_t>(percent / 2), '#');
    std::fprintf(stderr, "\r[%-50s] %3d %%", bar.c_str(), percent);
    std::fflush(stderr);
  }

 private:
  const bool watched = ::isatty(STDERR_FILENO) != 0;
  int shown = -1;
};

}  // namespace kandb::tools
