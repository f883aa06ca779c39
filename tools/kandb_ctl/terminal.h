// The whole terminal as a screen of lines, as it was afterwards. One at a time.
#pragma once

#include <chrono>
#include <vector>

#include "common/status.h"
#include "kandb_ctl/top_screen.h"

namespace kandb::ctl {

class Terminal {
 public:
  enum class Key { kNone, kQuit, kUp, kDown, kPageUp, kPageDown };

  Terminal() = default;
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // InvalidArgument when standard input or output is no terminal, or one of an unknown type.
  Status Open();

  ScreenSize Size() const;
  bool ShowsUnicode() const { return unicode; }
  void Show(const std::vector<ScreenLine>& lines);

  // Waits for a key, a new size or a signal, but not longer than `limit`. kQuit also when the
  // terminal is gone.
  Key WaitForKey(std::chrono::milliseconds limit);

 private:
  void* screen = nullptr;  // a SCREEN of curses, whose header is full of macros
  bool unicode = false;
};

}  // namespace kandb::ctl
