#include "meta/pd_service.h"

namespace kandb::meta {

void PdService::RegisterTo(kanrpc::RpcServer* server) {
  const auto register_method = [&]<class Req, class Resp>(
                                   const std::string& method,
                                   Status (PdService::*handler)(const Req&, Resp*)) {
    server->Register<Req, Resp>(method, [this, handler](const Req& request, Resp* response) {
      return (this->*handler)(request, response);
    });
  };
  register_method("Pd.Tso", &PdService::Tso);
  register_method("Pd.AllocId", &PdService::AllocId);
  register_method("Pd.Bootstrap", &PdService::Bootstrap);
  register_method("Pd.GetRegion", &PdService::GetRegion);
  register_method("Pd.UpsertRegion", &PdService::UpsertRegion);
  register_method("Pd.RegionHeartbeat", &PdService::RegionHeartbeat);
}

}  // namespace kandb::meta
