// The tool that is tested (KANDB_TOOL_BINARY) as a child process, run to its end.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace kandb::testing {

struct ToolResult {
  int exit_status;  // -1 when a signal ended it
  std::string out;
  std::string err;
};

// The streams are files, so that none of them can fill up while another one is waited for.
inline ToolResult RunTool(const std::vector<std::string>& arguments,
                          const std::string& input = "") {
  const TempDir dir;
  WriteFile(dir.File("in"), input);
  std::vector<char*> argv = {const_cast<char*>(KANDB_TOOL_BINARY)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  constexpr int kCreate = O_WRONLY | O_CREAT;
  posix_spawn_file_actions_t streams;
  ::posix_spawn_file_actions_init(&streams);
  ::posix_spawn_file_actions_addopen(&streams, 0, dir.File("in").c_str(), O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&streams, 1, dir.File("out").c_str(), kCreate, 0600);
  ::posix_spawn_file_actions_addopen(&streams, 2, dir.File("err").c_str(), kCreate, 0600);
  pid_t child = -1;
  const int error =
      ::posix_spawn(&child, KANDB_TOOL_BINARY, &streams, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&streams);
  if (error != 0) throw std::runtime_error("cannot start " KANDB_TOOL_BINARY);
  int status = 0;
  ::waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(dir.File("out")),
          ReadFile(dir.File("err"))};
}

// Runs the commands of a transcript and writes down what happens in the same way, so that the two
// can be compared. An example; words are divided by blanks, "<< " is the input, "[...]" the exit
// status and the first line of the errors, where there is anything to say:
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
