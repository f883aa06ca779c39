// Runs the tool under test (KANDB_TOOL_BINARY), or another program, as a child process, to its end.
#pragma once

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "support/temp_dir.h"
#include "tools/common/child_process.h"

namespace kandb::testing {

struct ToolResult {
  int exit_status;  // -1 when a signal ended it
  std::string out;
  std::string err;
  bool operator==(const ToolResult&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const ToolResult& result) {
  return stream << "[" << result.exit_status << "] " << result.err << result.out;
}

// The streams are files, so that none can fill up while another is waited for.
inline ToolResult RunTool(const std::vector<std::string>& arguments, const std::string& input = "",
                          const std::string& program = KANDB_TOOL_BINARY) {
  const TempDir dir;
  const std::string streams[] = {dir.File("in"), dir.File("out"), dir.File("err")};
  WriteFile(streams[0], input);
  const auto in_child = [&] {
    // Modes of files then bind root too.
    ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
    ::prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0);
    for (int fd = 0; fd < 3; ++fd) {
      const int flags = fd == 0 ? O_RDONLY : O_WRONLY | O_CREAT;
      ::dup2(::open(streams[fd].c_str(), flags | O_CLOEXEC, 0600), fd);
    }
  };
  tools::ChildProcess tool(program, arguments, {.in_child = in_child});
  std::string unused;  // standard error is a file
  const int exit_status = tool.WaitForExit(&unused);
  return {exit_status, ReadFile(streams[1]), ReadFile(streams[2])};
}

// Runs the commands of a transcript and records what happens in the same form, so that the two can
// be compared. An example; words are divided by blanks, "<< " is the input, "[...]" the exit
// status and the first line of standard error, unless 0 and empty:
//
//   $ region upsert --stdin << [{"id":1}]
//   written: 1, removed: 0
//   $ region get \q
//   [2] KEY: not a key: \q
//
// `options` are added to every command.
inline std::string Replay(const std::string& transcript, const std::string& options = "") {
  std::istringstream lines(transcript);
  std::string replayed = "\n";  // as a transcript in a raw string begins
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("$ ")) continue;
    const std::size_t command_end = std::min(line.find(" << "), line.size());
    const std::size_t input = std::min(command_end + 4, line.size());
    std::istringstream words(line.substr(2, command_end - 2) + " " + options);
    const ToolResult result =
        RunTool({std::istream_iterator<std::string>(words), {}}, line.substr(input));
    replayed += line + "\n" + result.out;
    if (result.exit_status == 0 && result.err.empty()) continue;
    replayed += "[" + std::to_string(result.exit_status) + "] " +
                result.err.substr(0, result.err.find('\n')) + "\n";
  }
  return replayed;
}

}  // namespace kandb::testing
