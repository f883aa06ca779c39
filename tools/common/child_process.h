// A program as a child process. Thread-compatible.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "common/posix_file.h"

namespace kandb::tools {

class ChildProcess {
 public:
  struct Options {
    std::string directory = ".";  // in which the program starts
    bool capture_errors = false;  // for WaitForExit; else standard error is that of this process
    std::function<void()>
        in_child;  // runs in the new process before the program: system calls only
  };

  // Starts `program`; a program that cannot be started ends with status 127. The child is killed
  // with the thread that started it. Throws std::runtime_error when there is no pipe for a stream.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const Options& options);
  ~ChildProcess() { Kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return child; }  // -1 once it has ended

  // Waits for the first line on standard output. Without a newline at the end, the process has
  // ended.
  std::string ReadBanner();

  // Waits for the process to end by itself. Its exit status, -1 after a signal; appends what it
  // wrote on standard error.
  int WaitForExit(std::string* error_text);

  // Kills the process and waits for its end. No effect on one that has ended.
  void Kill();

 private:
  pid_t child = -1;
  UniqueFd out;
  UniqueFd err;
};

// A port of 127.0.0.1 that was free a moment ago: another process may take it at any time. 0 when
// there is none.
int FreePort();

}  // namespace kandb::tools
