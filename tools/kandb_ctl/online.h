// What the commands that talk to a server share: the connection, arguments that are keys,
// identifiers or regions, and JSON in and out.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/pd_client.h"
#include "kandb_ctl/command.h"
#include "kandb_ctl/json_message.h"
#include "pdpb/messages.h"
#include "rpc/rpc_client.h"

namespace kandb::ctl {

struct Connection {
  explicit Connection(const Context& context)
      : rpc(context.server, context.client_options), pd(&rpc) {}

  kanrpc::RpcClient rpc;
  client::PdClient pd;
};

// --- Arguments ---
//
// One that does not parse is wrong usage. What the pointers lead to must outlive the parsing.

// `name` is "--option", or "KEY" for a positional argument.
CLI::Option* AddKeyOption(CLI::App* command, const std::string& name, std::string* key,
                          const std::string& help);

// Decimal digits and nothing else: the parser's own integers would take -1, and 010 for 8.
CLI::Option* AddIdOption(CLI::App* command, const std::string& name, std::uint64_t* id,
                         const std::string& help);
CLI::Option* AddIdOption(CLI::App* command, const std::string& name,
                         std::vector<std::uint64_t>* ids, const std::string& help);

// The options for the range, the epoch and the peers of a region. The epoch becomes 1.1.
void AddRegionOptions(CLI::App* command, pdpb::Region* region);

// For a command that reads all from standard input, or else wants `required` and takes the other
// options: throws when it was given neither of the two, or --stdin and any option. To be called
// when the options have been parsed.
void CheckStdinOr(const CLI::Option& required, const CLI::App& command, bool from_stdin);

// --- JSON ---

// Gives what is on standard input to `take`, which may throw as FromJson does. False when it is not
// JSON or does not fit, which has then been said on standard error.
bool ReadJson(const std::function<void(const Json&)>& take);

// The members of an object of numbers and texts: as JSON, or as a table of one row.
void PrintRow(const Context& context, const Json& object);

// --- Text ---

// As KeyText, but an empty key is "", as one would type it.
std::string KeyCell(const std::string& key);

}  // namespace kandb::ctl
