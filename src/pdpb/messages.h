// The catalogue of messages: the records of the cluster, and the request and response of each
// method. Records are stored in exactly the bytes in which they travel. See pdpb/wire.h for the
// encoding.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "pdpb/wire.h"

namespace kandb::pdpb {

// --- Records ---

struct RegionEpoch {
  std::uint64_t conf_version = 0;  // counts membership changes
  std::uint64_t version = 0;       // counts changes of the key range

  static constexpr auto Fields() {
    return std::tuple{Field{1, "conf_version", &RegionEpoch::conf_version},
                      Field{2, "version", &RegionEpoch::version}};
  }
  bool operator==(const RegionEpoch&) const = default;
};

enum class PeerRole : std::uint8_t { kVoter = 0, kLearner = 1 };

// A replica of a region.
struct Peer {
  std::uint64_t id = 0;
  std::uint64_t store_id = 0;
  PeerRole role = PeerRole::kVoter;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "id", &Peer::id}, Field{2, "store_id", &Peer::store_id},
                      Field{3, "role", &Peer::role}};
  }
  bool operator==(const Peer&) const = default;
};

// A storage node. One with an empty address is never chosen for a new replica.
struct Store {
  std::uint64_t id = 0;
  std::string address;
  std::uint8_t state = 0;  // not interpreted, kept as reported

  static constexpr auto Fields() {
    return std::tuple{Field{1, "id", &Store::id}, Field{2, "address", &Store::address},
                      Field{3, "state", &Store::state}};
  }
  bool operator==(const Store&) const = default;
};

// A Store whose address is a view into its encoding. Decodes when a Store does, without memory.
struct StoreView {
  std::uint64_t id = 0;
  std::string_view address;
  std::uint8_t state = 0;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "id", &StoreView::id}, Field{2, "address", &StoreView::address},
                      Field{3, "state", &StoreView::state}};
  }
};

// A range of keys [start_key, end_key) and its replicas. An empty bound means unbounded.
struct Region {
  std::uint64_t id = 0;
  std::string start_key;
  std::string end_key;
  RegionEpoch epoch;
  std::vector<Peer> peers;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "id", &Region::id}, Field{2, "start_key", &Region::start_key},
                      Field{3, "end_key", &Region::end_key}, Field{4, "epoch", &Region::epoch},
                      Field{5, "peers", &Region::peers}};
  }
  bool operator==(const Region&) const = default;
};

// The range of a Region, as views into its encoding: a lookup reads many ranges and keeps one
// Region. Decodes like any message.
struct RegionRange {
  std::string_view start_key;
  std::string_view end_key;

  static constexpr auto Fields() {
    return std::tuple{Field{2, "start_key", &RegionRange::start_key},
                      Field{3, "end_key", &RegionRange::end_key}};
  }
};

// Reads the range of a Region that is laid out as AppendTo writes it: id, start_key, end_key, then
// as many bytes as an epoch and a whole number of peers take, whose contents are not checked. False
// for any other layout, which may still decode; `*range` is then unspecified.
[[gnu::always_inline]] inline bool DecodeFront(std::string_view bytes, RegionRange* range) {
  constexpr std::size_t kIdSize = sizeof(Region::id);
  constexpr std::size_t kSmallestSize =
      kFieldHeaderSize + kIdSize + 2 * kFieldHeaderSize + FieldSize(RegionEpoch());
  constexpr std::size_t kPeerSize = FieldSize(Peer());
  constexpr auto kFields = Region::Fields();
  if (bytes.size() < kSmallestSize) return false;
  // Bytes left for the keys and the peers.
  std::size_t left = bytes.size() - kSmallestSize;
  const char* at = bytes.data();
  const auto take_key = [&](const auto& field, std::string_view* key)
      __attribute__((always_inline)) {
    const std::size_t length = LoadU32(at + 2);
    if (LoadU16(at) != field.tag || length > left) return false;
    *key = {at + kFieldHeaderSize, length};
    at += kFieldHeaderSize + length;
    left -= length;
    return true;
  };
  if (LoadU16(at) != std::get<0>(kFields).tag || LoadU32(at + 2) != kIdSize) return false;
  at += kFieldHeaderSize + kIdSize;
  return take_key(std::get<1>(kFields), &range->start_key) &&
         take_key(std::get<2>(kFields), &range->end_key) && left % kPeerSize == 0;
}

// --- Pd.Tso ---

struct TsoRequest {
  std::uint32_t count = 0;  // 0 is read as 1

  static constexpr auto Fields() { return std::tuple{Field{1, "count", &TsoRequest::count}}; }
};

struct TsoResponse {
  std::uint64_t timestamp = 0;  // the first of `count` consecutive ones
  std::uint32_t count = 0;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "timestamp", &TsoResponse::timestamp},
                      Field{2, "count", &TsoResponse::count}};
  }
};

// --- Pd.AllocId ---

struct AllocIdRequest {
  std::uint32_t count = 0;  // 0 is read as 1

  static constexpr auto Fields() { return std::tuple{Field{1, "count", &AllocIdRequest::count}}; }
};

struct AllocIdResponse {
  std::uint64_t first_id = 0;  // the first of `count` consecutive ones
  std::uint32_t count = 0;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "first_id", &AllocIdResponse::first_id},
                      Field{2, "count", &AllocIdResponse::count}};
  }
};

// --- Pd.Bootstrap ---

struct BootstrapRequest {
  Store store;
  Region region;
  std::vector<Region> extra_regions;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "store", &BootstrapRequest::store},
                      Field{2, "region", &BootstrapRequest::region},
                      Field{3, "extra_regions", &BootstrapRequest::extra_regions}};
  }
};

struct BootstrapResponse {
  bool already_bootstrapped = false;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "already_bootstrapped", &BootstrapResponse::already_bootstrapped}};
  }
};

// --- Pd.GetRegion ---

struct GetRegionRequest {
  std::string key;

  static constexpr auto Fields() { return std::tuple{Field{1, "key", &GetRegionRequest::key}}; }
};

struct GetRegionResponse {
  Region region;
  Peer leader;  // the first of region.peers
  Store leader_store;
  std::vector<Store> stores;  // of the peers, in their order

  static constexpr auto Fields() {
    return std::tuple{Field{1, "region", &GetRegionResponse::region},
                      Field{2, "leader", &GetRegionResponse::leader},
                      Field{3, "leader_store", &GetRegionResponse::leader_store},
                      Field{4, "stores", &GetRegionResponse::stores}};
  }
};

// --- Pd.UpsertRegion ---

struct UpsertRegionRequest {
  std::vector<Region> regions;
  std::vector<std::uint64_t> removed_region_ids;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "regions", &UpsertRegionRequest::regions},
                      Field{2, "removed_region_ids", &UpsertRegionRequest::removed_region_ids}};
  }
};

struct UpsertRegionResponse {
  std::string message;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "message", &UpsertRegionResponse::message, kOmittedWhenEmpty}};
  }
};

// --- Pd.RegionHeartbeat ---

// A region as the store that leads it reports it. `Ids` is a list of ids: see the aliases below.
template <class Ids>
struct BasicRegionHeartbeatEntry {
  std::uint64_t region_id = 0;
  Ids member_store_ids;
  Ids caught_up_learner_store_ids;
  // Members to be removed first, and the only ones that leadership may move to.
  Ids candidate_store_ids;

  static constexpr auto Fields() {
    using Entry = BasicRegionHeartbeatEntry;
    return std::tuple{Field{1, "region_id", &Entry::region_id},
                      Field{2, "member_store_ids", &Entry::member_store_ids},
                      Field{3, "caught_up_learner_store_ids", &Entry::caught_up_learner_store_ids},
                      Field{4, "candidate_store_ids", &Entry::candidate_store_ids}};
  }
};

template <class Ids>
struct BasicRegionHeartbeatRequest {
  std::uint64_t store_id = 0;
  std::vector<BasicRegionHeartbeatEntry<Ids>> regions;
  Ids region_ids;  // replicas of the store, to be checked for staleness

  static constexpr auto Fields() {
    using Request = BasicRegionHeartbeatRequest;
    return std::tuple{Field{1, "store_id", &Request::store_id},
                      Field{2, "regions", &Request::regions},
                      Field{3, "region_ids", &Request::region_ids}};
  }
};

using RegionHeartbeatEntry = BasicRegionHeartbeatEntry<std::vector<std::uint64_t>>;
using RegionHeartbeatRequest = BasicRegionHeartbeatRequest<std::vector<std::uint64_t>>;

// The same, with the lists as views into the encoding: a heartbeat has thousands of short ones, and
// allocating each took as long as all other work on it. Decodes when the former does.
using RegionHeartbeatEntryView = BasicRegionHeartbeatEntry<IntegersView>;
using RegionHeartbeatRequestView = BasicRegionHeartbeatRequest<IntegersView>;

enum class ScheduleKind : std::uint8_t {
  kNone = 0,
  kPromoteLearner = 1,
  kAddPeer = 2,
  kRemovePeer = 3,
  kDestroyStaleReplica = 4,
  kTransferLeader = 5,
};

struct ScheduleCommand {
  ScheduleKind kind = ScheduleKind::kNone;
  std::uint64_t region_id = 0;
  std::uint64_t store_id = 0;
  std::string address;  // of the store chosen by kAddPeer, else empty

  static constexpr auto Fields() {
    return std::tuple{Field{1, "kind", &ScheduleCommand::kind},
                      Field{2, "region_id", &ScheduleCommand::region_id},
                      Field{3, "store_id", &ScheduleCommand::store_id},
                      Field{4, "address", &ScheduleCommand::address}};
  }
  bool operator==(const ScheduleCommand&) const = default;
};

struct RegionHeartbeatResponse {
  std::vector<ScheduleCommand> commands;

  static constexpr auto Fields() {
    return std::tuple{Field{1, "commands", &RegionHeartbeatResponse::commands}};
  }
};

}  // namespace kandb::pdpb
