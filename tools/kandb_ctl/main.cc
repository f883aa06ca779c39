// kandb-ctl: calls a running server, and reads the state directory of a stopped one.

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>

#include "common/posix_file.h"
#include "kandb_ctl/command.h"
#include "kandb_ctl/server_address.h"

namespace kandb::ctl {

namespace {

int Run(int argc, char** argv) {
  CLI::App app("kandb-ctl " KANDB_VERSION
               ": calls a kandb-meta server, and reads the state directory of a stopped one.",
               "kandb-ctl");
  Context context;
  app.require_subcommand(1);
  app.fallthrough();  // global options may also follow the command
  app.set_version_flag("--version", "kandb-ctl " KANDB_VERSION, "Print the version");
  // Of an option given twice the last one counts, so that scripts can add to a command.
  const auto global = [](CLI::Option* option) {
    option->capture_default_str()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    return option;
  };
  global(app.add_option("--server", context.server, "server to talk to, HOST:PORT"))
      ->envname("KANDB_SERVER")
      ->check(CLI::Validator(WrongServerAddress, ""));
  global(app.add_option(
      "--timeout-ms", context.client_options.timeout_ms,
      "longest wait in milliseconds: to connect, for each address of the server, then for the\n"
      "next bytes to be sent or received; negative for no limit; a call takes at most --attempts\n"
      "times the sum of its waits, and the pauses between; the lookup of the name is not bounded"));
  global(app.add_option("--attempts", context.client_options.attempts,
                        "attempts for each call, with pauses of 20, 40, ... ms"));
  app.add_flag("--json", context.json, "print JSON");
  AddClusterCommands(&app, &context);
  AddRegionCommands(&app, &context);
  AddLoadCommand(&app, &context);
  AddHealthCommands(&app, &context);
  AddTopCommand(&app, &context);
  AddStateCommands(&app, &context);
  AddBackupCommands(&app, &context);
  AddFileCommands(&app, &context);
  AddReportCommand(&app, &context);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitYes : kExitUsage;
  }
  const int exit_status = context.run();
  // A full disk shows here: cut output must not look complete.
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return exit_status;
  return Fail(Status::Corruption("standard output: " + ErrnoText(errno)));
}

}  // namespace
}  // namespace kandb::ctl

int main(int argc, char** argv) {
  try {
    return kandb::ctl::Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kandb-ctl: %s\n", error.what());
    return kandb::ctl::kExitNo;
  }
}
