// A first session through the installed headers and libraries: user HOST:PORT.

#include <iostream>

#include "client/pd_client.h"
#include "pdpb/messages.h"
#include "rpc/rpc_client.h"

int main(int, char** argv) {
  kandb::kanrpc::RpcClient rpc(argv[1], {});
  kandb::client::PdClient client(&rpc);
  kandb::pdpb::AllocIdResponse ids;
  std::cout << client.AllocId({5}, &ids).ToString() << ": ids from " << ids.first_id << "\n";

  kandb::pdpb::BootstrapResponse bootstrap;
  const kandb::pdpb::Region whole = {ids.first_id, "", "", {1, 1}, {{1025, 1026, {}}}};
  std::cout << client.Bootstrap({{1026, "s1:20160", 0}, whole, {}}, &bootstrap).ToString() << "\n";
  kandb::pdpb::GetRegionResponse route;
  std::cout << client.GetRegion({"apple"}, &route).ToString() << ": region " << route.region.id
            << " at " << route.leader_store.address << "\n";
}
