#include "meta/region_router.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/endian.h"
#include "meta/keys.h"
#include "rpc/frame.h"

namespace kandb::meta {

namespace {

// a < b as unsigned bytes. Keys are short: calling memcmp took longer than comparing them.
bool Less(std::string_view a, std::string_view b) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  const std::size_t shared = std::min(a.size(), b.size());
  if (shared < kWord) {
    for (std::size_t at = 0; at < shared; ++at) {
      if (a[at] != b[at]) {
        return static_cast<unsigned char>(a[at]) < static_cast<unsigned char>(b[at]);
      }
    }
    return a.size() < b.size();
  }
  // The last word may overlap the one before it, whose bytes were equal.
  for (std::size_t at = 0;; at = std::min(at + kWord, shared - kWord)) {
    const std::uint64_t a_word = LoadBigEndian<std::uint64_t>(a.data() + at);
    const std::uint64_t b_word = LoadBigEndian<std::uint64_t>(b.data() + at);
    if (a_word != b_word) return a_word < b_word;
    if (at == shared - kWord) return a.size() < b.size();
  }
}

bool Covers(const pdpb::RegionRange& range, std::string_view key) {
  return !Less(key, range.start_key) && (range.end_key.empty() || Less(key, range.end_key));
}

// Searches region records for the first whose range covers a key. Nearly all ranges do not, and
// nearly all records are laid out as our encoder does it: then the range is judged in place. Any
// other record is decoded before, so one pass tells absence from damage.
class RegionSearch {
 public:
  explicit RegionSearch(std::string_view sought_key) : key(sought_key) {}

  // Returns false to end the search. Runs for every region of the cluster: flattened, it is one
  // function without calls.
  [[gnu::flatten]] bool LookAt(std::string_view record) {
    pdpb::RegionRange range;
    any_record = true;
    if (DecodeFront(record, &range) && !Covers(range, key)) return true;
    return LookCloselyAt(record);
  }

  const std::string_view key;
  bool any_record = false;
  bool bad_record = false;
  bool covered = false;
  pdpb::Region region;  // once covered

 private:
  [[gnu::noinline]] bool LookCloselyAt(std::string_view record) {
    region = {};
    if (!Decode(record, &region)) {
      bad_record = true;
      return true;
    }
    covered = Covers({region.start_key, region.end_key}, key);
    return !covered;
  }
};

// At most two passes over the records. Absence must be true of one moment, but a region can move
// past a pass as others split and merge. So when nothing was found and something was written
// meanwhile, a second pass reads a list of one moment, which keeps writers waiting.
Status FindRegion(const store::MetaView& metadata, std::string_view key, pdpb::Region* region) {
  const auto [begin, end, max_records] = kRegionKeys;
  std::optional<RegionSearch> search(key);
  const auto look = [&](std::string_view, std::string_view record) {
    return search->LookAt(record);
  };
  bool of_one_moment = false;
  Status s = metadata.ForEach(begin, end, max_records, look, &of_one_moment);
  if (s.ok() && !search->covered && !of_one_moment) {
    search.emplace(key);
    s = metadata.ForEachAtOnce(begin, end, max_records, look);
  }
  if (!s.ok()) return s;
  if (!search->covered) {
    if (!search->any_record) return Status::NotFound("cluster not bootstrapped");
    // The region sought may be one that does not decode: that is damage, not absence.
    if (search->bad_record) return Status::Corruption("bad region record");
    return Status::NotFound("no region covers key");
  }
  *region = std::move(search->region);
  return {};
}

// Fills in the leader and the stores of `route->region`.
Status AddStores(const store::MetaView& metadata, pdpb::GetRegionResponse* route) {
  std::size_t stores_size = 0;  // bytes in the response, many times the request's if peers are many
  for (const pdpb::Peer& peer : route->region.peers) {
    const bool is_leader = &peer == &route->region.peers.front();
    std::string record;
    bool found = false;
    if (Status s = metadata.Get(StoreKey(peer.store_id), &record, &found); !s.ok()) return s;
    pdpb::Store peer_store;
    const bool decodes = found && Decode(record, &peer_store);
    if (is_leader) {
      if (found && !decodes) return Status::Corruption("bad store record");
      // Who leads is not known here: the peer that is listed first is taken for the leader.
      route->leader = peer;
      route->leader_store = peer_store;
    }
    if (!decodes) continue;
    stores_size += pdpb::FieldSize(peer_store);
    if (stores_size > kanrpc::kMaxPayloadSize) return kanrpc::PayloadTooLarge();
    route->stores.push_back(std::move(peer_store));
  }
  return {};
}

}  // namespace

Status RegionRouter::Find(std::string_view key, pdpb::GetRegionResponse* route) const {
  const store::MetaView view = metadata->CaptureView();
  pdpb::GetRegionResponse found;
  if (Status s = FindRegion(view, key, &found.region); !s.ok()) return s;
  if (Status s = AddStores(view, &found); !s.ok()) return s;
  *route = std::move(found);
  return {};
}

Status RegionRouter::Upsert(const pdpb::UpsertRegionRequest& request) {
  std::vector<store::KeyValue> puts;
  puts.reserve(request.regions.size());
  for (const pdpb::Region& region : request.regions) {
    puts.emplace_back(RegionKey(region.id), Encode(region));
  }
  std::vector<std::string> deletes;
  deletes.reserve(request.removed_region_ids.size());
  for (const std::uint64_t id : request.removed_region_ids) deletes.push_back(RegionKey(id));
  return metadata->Write(std::move(puts), std::move(deletes));
}

}  // namespace kandb::meta
