// Messages: what decodes, encodes and decodes to the same; a RegionRange has the bounds of its
// Region. What DecodeFront accepts begins with an id and the range that it returns; the whole
// decodes to the same range, unless a later field repeats a bound. It accepts every encoding. The
// view of a heartbeat has the ids of the heartbeat.

#include <algorithm>

#include "pdpb/messages.h"
#include "target.h"

namespace kandb::fuzz {

using namespace pdpb;

static bool Same(const RegionRange& a, const RegionRange& b) {
  return a.start_key == b.start_key && a.end_key == b.end_key;
}

static bool Same(const std::vector<std::uint64_t>& ids, const IntegersView& view) {
  return ids.size() == view.size() && std::equal(ids.begin(), ids.end(), view.begin());
}

static bool Same(const RegionHeartbeatRequest& a, const RegionHeartbeatRequestView& b) {
  return a.store_id == b.store_id && Same(a.region_ids, b.region_ids) &&
         std::equal(a.regions.begin(), a.regions.end(), b.regions.begin(), b.regions.end(),
                    [](const RegionHeartbeatEntry& x, const RegionHeartbeatEntryView& y) {
                      return x.region_id == y.region_id &&
                             Same(x.member_store_ids, y.member_store_ids) &&
                             Same(x.caught_up_learner_store_ids, y.caught_up_learner_store_ids) &&
                             Same(x.candidate_store_ids, y.candidate_store_ids);
                    });
}

static void TryFront(std::string_view bytes) {
  RegionRange front, range, again;
  if (!DecodeFront(bytes, &front)) return;
  const char* const front_end = front.end_key.data() + front.end_key.size();
  const std::string_view rest = bytes.substr(static_cast<std::size_t>(front_end - bytes.data()));
  Region region;
  Claim(Decode({bytes.data(), front_end}, &region));
  Claim(Encode(Region{region.id, std::string(front.start_key), std::string(front.end_key), {}, {}})
            .starts_with(std::string_view(bytes.data(), front_end)));
  Claim(rest.size() >= 34 && (rest.size() - 34) % 48 == 0);
  (void)Decode(rest, &again);
  if (again.start_key.data() != nullptr || again.end_key.data() != nullptr) return;
  Claim(!Decode(bytes, &range) || Same(range, front));
}

template <class M>
static void Try(std::string_view bytes) {
  M first, second;
  if (!Decode(bytes, &first)) return;
  const std::string encoded = Encode(first);
  Claim(Decode(encoded, &second) && Encode(second) == encoded);
  if constexpr (std::is_same_v<M, Region>) {
    RegionRange range, front;
    const RegionRange sound = {first.start_key, first.end_key};
    Claim(Decode(bytes, &range) && Same(range, sound));
    Claim(DecodeFront(encoded, &front) && Same(front, sound));
  }
  if constexpr (std::is_same_v<M, RegionHeartbeatRequest>) {
    RegionHeartbeatRequestView view;
    Claim(Decode(bytes, &view) && Same(first, view));
  }
}

template <class... M>
static void TryAll(std::string_view bytes) {
  (Try<M>(bytes), ...);
}

// As every type of the catalogue.
void TryInput(std::string_view input) {
  TryFront(input);
  TryAll<RegionEpoch, Peer, Store, Region, TsoRequest, TsoResponse, AllocIdRequest, AllocIdResponse,
         BootstrapRequest, BootstrapResponse, GetRegionRequest, GetRegionResponse,
         UpsertRegionRequest, UpsertRegionResponse, RegionHeartbeatEntry, RegionHeartbeatRequest,
         ScheduleCommand, RegionHeartbeatResponse>(input);
}

}  // namespace kandb::fuzz
