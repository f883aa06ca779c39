// Typed calls of the placement driver's six methods. Thread-safe, as its client or pool is.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "common/status.h"
#include "pdpb/messages.h"
#include "rpc/rpc_client.h"

namespace kandb::client {

class PdClient {
 public:
  // Calls through one client or a pool, borrowed.
  explicit PdClient(kanrpc::RpcClient* client);
  explicit PdClient(kanrpc::RpcClientPool* pool);

  // Each fails as RpcClient::Call does, or with Corruption "bad response payload". The response is
  // written only on success. What the methods do is in docs/protocol.md.
  Status Tso(const pdpb::TsoRequest& request, pdpb::TsoResponse* response);
  Status AllocId(const pdpb::AllocIdRequest& request, pdpb::AllocIdResponse* response);
  Status Bootstrap(const pdpb::BootstrapRequest& request, pdpb::BootstrapResponse* response);
  Status GetRegion(const pdpb::GetRegionRequest& request, pdpb::GetRegionResponse* response);
  Status UpsertRegion(const pdpb::UpsertRegionRequest& request,
                      pdpb::UpsertRegionResponse* response);
  Status RegionHeartbeat(const pdpb::RegionHeartbeatRequest& request,
                         pdpb::RegionHeartbeatResponse* response);

 private:
  using Transport =
      std::function<Status(std::string_view method, std::string_view payload, std::string* answer)>;

  template <pdpb::Message Req, pdpb::Message Resp>
  Status Call(std::string_view method, const Req& request, Resp* response);

  Transport transport;
};

}  // namespace kandb::client
