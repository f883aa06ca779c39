// What the sub-commands of kandb-ctl share: the global options, the exit status, and how a command
// is registered. Each Add... function adds its commands to the parser; the one that the command
// line names leaves what it does in `Context::run`, which main calls once parsing is over.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>

#include "common/status.h"
#include "rpc/rpc_client.h"

namespace kandb::ctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // the server or the data said no
inline constexpr int kExitUsage = 2;

struct Context {
  std::string server = "127.0.0.1:2379";
  kanrpc::RpcClientOptions client_options;
  bool json = false;  // print JSON instead of tables

  std::function<int()> run;  // returns the exit status
};

// Says on standard error what went wrong; kExitFailed.
int Fail(const Status& status);

void AddClusterCommands(CLI::App* app, Context* context);  // tso alloc-id bootstrap heartbeat ping
void AddRegionCommands(CLI::App* app, Context* context);   // region get list upsert remove
void AddLoadCommand(CLI::App* app, Context* context);      // load
void AddStateCommands(CLI::App* app, Context* context);    // state summary, dump and verify
void AddFileCommands(CLI::App* app, Context* context);     // wal table manifest
void AddReportCommand(CLI::App* app, Context* context);    // report

}  // namespace kandb::ctl
