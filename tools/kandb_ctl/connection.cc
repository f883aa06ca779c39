#include "kandb_ctl/connection.h"

#include <string_view>
#include <unordered_set>

#include "kandb_ctl/server_address.h"
#include "tools/common/remote_failure.h"

namespace kandb::ctl {

namespace {

// Answers of the client library that bytes of another protocol lead to.
std::string_view HintFor(std::string_view failure) {
  if (failure.ends_with("kanrpc: connection closed")) {
    return " (is this a kandb-meta server? It also closes connections when it has too many)";
  }
  for (const std::string_view text :
       {"kanrpc: bad magic", "kanrpc: method too long", "kanrpc: payload too large",
        "kanrpc: frame crc mismatch", "kanrpc: bad frame type", "kanrpc: request id mismatch"}) {
    if (failure.ends_with(text)) return " (is this a kandb-meta server?)";
  }
  return "";
}

}  // namespace

int FailCall(const Context& context, const Status& status) {
  const bool answered = tools::RemoteFailureOf(status) != tools::RemoteFailure::kNone;
  if (answered || status.code() == Status::kInvalidArgument) return Fail(status);
  std::string text = status.message();
  if (text.ends_with("cannot connect to " + context.server)) {
    text += ": " + WhyUnreachable(context.server, context.client_options.timeout_ms);
  } else {
    text += HintFor(text);
  }
  (void)Fail({status.code(), text});
  return kExitUnreachable;
}

Status FindRegionRecords(client::PdClient* pd, const std::vector<std::uint64_t>& ids,
                         std::vector<std::uint64_t>* found, std::vector<std::uint64_t>* missing) {
  constexpr std::uint64_t kNoStore = UINT64_MAX;
  pdpb::RegionHeartbeatResponse answer;
  if (Status s = pd->RegionHeartbeat({kNoStore, {}, ids}, &answer); !s.ok()) return s;
  std::unordered_set<std::uint64_t> known;
  for (const pdpb::ScheduleCommand& command : answer.commands) known.insert(command.region_id);
  for (const std::uint64_t id : ids) (known.contains(id) ? found : missing)->push_back(id);
  return {};
}

}  // namespace kandb::ctl
