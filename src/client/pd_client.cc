#include "client/pd_client.h"

#include <utility>

namespace kandb::client {

namespace {

template <class Client>
auto CallThrough(Client* client) {
  return [client](std::string_view method, std::string_view payload, std::string* answer) {
    return client->Call(method, payload, answer);
  };
}

}  // namespace

PdClient::PdClient(kanrpc::RpcClient* client) : transport(CallThrough(client)) {}
PdClient::PdClient(kanrpc::RpcClientPool* pool) : transport(CallThrough(pool)) {}

template <pdpb::Message Req, pdpb::Message Resp>
Status PdClient::Call(std::string_view method, const Req& request, Resp* response) {
  std::string answer;
  if (Status s = transport(method, Encode(request), &answer); !s.ok()) return s;
  Resp decoded;
  if (!Decode(answer, &decoded)) return Status::Corruption("bad response payload");
  *response = std::move(decoded);
  return {};
}

Status PdClient::Tso(const pdpb::TsoRequest& request, pdpb::TsoResponse* response) {
  return Call("Pd.Tso", request, response);
}

Status PdClient::AllocId(const pdpb::AllocIdRequest& request, pdpb::AllocIdResponse* response) {
  return Call("Pd.AllocId", request, response);
}

Status PdClient::Bootstrap(const pdpb::BootstrapRequest& request,
                           pdpb::BootstrapResponse* response) {
  return Call("Pd.Bootstrap", request, response);
}

Status PdClient::GetRegion(const pdpb::GetRegionRequest& request,
                           pdpb::GetRegionResponse* response) {
  return Call("Pd.GetRegion", request, response);
}

Status PdClient::UpsertRegion(const pdpb::UpsertRegionRequest& request,
                              pdpb::UpsertRegionResponse* response) {
  return Call("Pd.UpsertRegion", request, response);
}

Status PdClient::RegionHeartbeat(const pdpb::RegionHeartbeatRequest& request,
                                 pdpb::RegionHeartbeatResponse* response) {
  return Call("Pd.RegionHeartbeat", request, response);
}

}  // namespace kandb::client
