#include "tools/common/remote_failure.h"

#include <string_view>

namespace kandb::tools {

RemoteFailure RemoteFailureOf(const Status& status) {
  constexpr std::string_view kRemote = "remote: ";
  std::string_view text = status.message();
  const std::size_t remote = text.find(kRemote);
  if (remote == text.npos || (remote > 0 && !text.substr(0, remote).ends_with(": "))) {
    return RemoteFailure::kNone;
  }
  text.remove_prefix(remote + kRemote.size());
  if (text == "NotFound: cluster not bootstrapped") return RemoteFailure::kNotBootstrapped;
  if (text == "NotFound: no region covers key") return RemoteFailure::kNoRegionCoversKey;
  return RemoteFailure::kOther;
}

bool IsUnanswered(const Status& status) {
  if (RemoteFailureOf(status) != RemoteFailure::kNone) return false;
  for (const std::string_view text : {"cannot connect to ", "kanrpc: connection closed",
                                      "kanrpc io: ", "kanrpc poll: ", "kanrpc: io timeout"}) {
    if (status.message().find(text) != std::string::npos) return true;
  }
  return false;
}

}  // namespace kandb::tools
