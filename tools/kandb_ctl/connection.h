// The connection of a command to the server that the global options name.
#pragma once

#include <cstdint>
#include <vector>

#include "client/pd_client.h"
#include "kandb_ctl/command.h"
#include "rpc/rpc_client.h"

namespace kandb::ctl {

// Connects with the first call.
struct Connection {
  explicit Connection(const Context& context)
      : rpc(context.server, context.client_options), pd(&rpc) {}

  kanrpc::RpcClient rpc;
  client::PdClient pd;
};

// Prints the failure of a call on standard error, with the reason when there is no connection.
// Returns kExitNo when the server answered, otherwise kExitUnreachable.
int FailCall(const Context& context, const Status& status);

// Which regions have a record that can be read. The server tells by what the heartbeat of a store
// without regions is answered: a replica there of such a region would be stale. That heartbeat
// leaves no trace.
Status FindRegionRecords(client::PdClient* pd, const std::vector<std::uint64_t>& ids,
                         std::vector<std::uint64_t>* found, std::vector<std::uint64_t>* missing);

}  // namespace kandb::ctl
