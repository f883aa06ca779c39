// What the commands for a state directory share.
#pragma once

#include <functional>
#include <string>

#include "kandb_ctl/command.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

// For one command: the directory, which does not change meanwhile, and how to read it.
struct StateToRead {
  const std::string& dir;
  const std::string& live_at;  // in UTC; empty for a stopped server
  const store::StoreCrypto& crypto;
  bool json;
};

// Adds a command with the options for a directory. `action` returns the exit status.
CLI::App* AddStateCommand(CLI::App* state, Context* context, const char* name,
                          const char* description,
                          const std::function<int(const StateToRead&)>& action);

void AddStateListCommands(CLI::App* state, Context* context);  // state regions, state stores

}  // namespace kandb::ctl
