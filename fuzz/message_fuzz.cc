// Messages: what decodes, encodes and decodes to the same; a region's range is the same in place.

#include "pdpb/messages.h"
#include "target.h"

namespace kandb::fuzz {

using namespace pdpb;

template <class M>
static void Try(std::string_view bytes) {
  M first, second;
  if (!Decode(bytes, &first)) return;
  const std::string encoded = Encode(first);
  Claim(Decode(encoded, &second) && Encode(second) == encoded);
  if constexpr (std::is_same_v<M, Region>) {
    RegionRange range;
    Claim(Decode(bytes, &range));
    Claim(range.start_key == first.start_key && range.end_key == first.end_key);
  }
}

template <class... M>
static void TryAll(std::string_view bytes) {
  (Try<M>(bytes), ...);
}

// As every type of the catalogue.
void TryInput(std::string_view input) {
  TryAll<RegionEpoch, Peer, Store, Region, TsoRequest, TsoResponse, AllocIdRequest, AllocIdResponse,
         BootstrapRequest, BootstrapResponse, GetRegionRequest, GetRegionResponse,
         UpsertRegionRequest, UpsertRegionResponse, RegionHeartbeatEntry, RegionHeartbeatRequest,
         ScheduleCommand, RegionHeartbeatResponse>(input);
}

}  // namespace kandb::fuzz
