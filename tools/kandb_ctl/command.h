// What the sub-commands of kandb-ctl share: the global options, the exit status, and registration.
// Each Add... function adds its commands to the parser. The command that the command line names
// stores its action in `Context::run`, which main calls after parsing.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>

#include "common/status.h"
#include "rpc/rpc_client.h"
#include "tools/common/exit_status.h"

namespace kandb::ctl {

using tools::kExitNo;
using tools::kExitUnreachable;
using tools::kExitUsage;
using tools::kExitYes;

struct Context {
  std::string server = "127.0.0.1:2379";  // HOST:PORT, checked
  kanrpc::RpcClientOptions client_options;
  bool json = false;  // print JSON instead of tables

  std::function<int()> run;  // returns the exit status
};

// Prints the failure on standard error and returns kExitNo.
int Fail(const Status& status);

void AddClusterCommands(CLI::App* app, Context* context);  // tso alloc-id bootstrap heartbeat ping
void AddRegionCommands(CLI::App* app, Context* context);   // region get list upsert remove
void AddLoadCommand(CLI::App* app, Context* context);      // load
void AddHealthCommands(CLI::App* app, Context* context);   // health metrics
void AddTopCommand(CLI::App* app, Context* context);       // top
void AddStateCommands(CLI::App* app, Context* context);    // state summary, dump and verify
void AddBackupCommands(CLI::App* app, Context* context);   // backup restore salvage
void AddFileCommands(CLI::App* app, Context* context);     // wal table manifest
void AddReportCommand(CLI::App* app, Context* context);    // report

}  // namespace kandb::ctl
