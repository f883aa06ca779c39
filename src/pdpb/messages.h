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
  std::uint64_t conf_version = 0;  // counts changes of the members
  std::uint64_t version = 0;       // counts changes of the key range

  static constexpr auto Fields() {
    return std::tuple{Field{1, &RegionEpoch::conf_version}, Field{2, &RegionEpoch::version}};
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
    return std::tuple{Field{1, &Peer::id}, Field{2, &Peer::store_id}, Field{3, &Peer::role}};
  }
  bool operator==(const Peer&) const = default;
};

// A storage node. An empty address keeps it from being chosen for new replicas.
struct Store {
  std::uint64_t id = 0;
  std::string address;
  std::uint8_t state = 0;  // the store's own business, kept as it was reported

  static constexpr auto Fields() {
    return std::tuple{Field{1, &Store::id}, Field{2, &Store::address}, Field{3, &Store::state}};
  }
  bool operator==(const Store&) const = default;
};

// A range of keys [start_key, end_key) and its replicas. An empty bound is no bound.
struct Region {
  std::uint64_t id = 0;
  std::string start_key;
  std::string end_key;
  RegionEpoch epoch;
  std::vector<Peer> peers;

  static constexpr auto Fields() {
    return std::tuple{Field{1, &Region::id}, Field{2, &Region::start_key},
                      Field{3, &Region::end_key}, Field{4, &Region::epoch},
                      Field{5, &Region::peers}};
  }
  bool operator==(const Region&) const = default;
};

// The range of an encoded Region, read in place: a lookup looks at many regions and keeps one.
struct RegionRange {
  std::string_view start_key;
  std::string_view end_key;

  static constexpr auto Fields() {
    return std::tuple{Field{2, &RegionRange::start_key}, Field{3, &RegionRange::end_key}};
  }
};

// --- Pd.Tso ---

struct TsoRequest {
  std::uint32_t count = 0;  // 0 is read as 1

  static constexpr auto Fields() { return std::tuple{Field{1, &TsoRequest::count}}; }
};

struct TsoResponse {
  std::uint64_t timestamp = 0;  // the first of `count` consecutive ones
  std::uint32_t count = 0;

  static constexpr auto Fields() {
    return std::tuple{Field{1, &TsoResponse::timestamp}, Field{2, &TsoResponse::count}};
  }
};

// --- Pd.AllocId ---

struct AllocIdRequest {
  std::uint32_t count = 0;  // 0 is read as 1

  static constexpr auto Fields() { return std::tuple{Field{1, &AllocIdRequest::count}}; }
};

struct AllocIdResponse {
  std::uint64_t first_id = 0;  // the first of `count` consecutive ones
  std::uint32_t count = 0;

  static constexpr auto Fields() {
    return std::tuple{Field{1, &AllocIdResponse::first_id}, Field{2, &AllocIdResponse::count}};
  }
};

// --- Pd.Bootstrap ---

struct BootstrapRequest {
  Store store;
  Region region;
  std::vector<Region> extra_regions;

  static constexpr auto Fields() {
    return std::tuple{Field{1, &BootstrapRequest::store}, Field{2, &BootstrapRequest::region},
                      Field{3, &BootstrapRequest::extra_regions}};
  }
};

struct BootstrapResponse {
  bool already_bootstrapped = false;

  static constexpr auto Fields() {
    return std::tuple{Field{1, &BootstrapResponse::already_bootstrapped}};
  }
};

// --- Pd.GetRegion ---

struct GetRegionRequest {
  std::string key;

  static constexpr auto Fields() { return std::tuple{Field{1, &GetRegionRequest::key}}; }
};

struct GetRegionResponse {
  Region region;
  Peer leader;  // the first of region.peers
  Store leader_store;
  std::vector<Store> stores;  // of the peers, in their order

  static constexpr auto Fields() {
    return std::tuple{Field{1, &GetRegionResponse::region}, Field{2, &GetRegionResponse::leader},
                      Field{3, &GetRegionResponse::leader_store},
                      Field{4, &GetRegionResponse::stores}};
  }
};

// --- Pd.UpsertRegion ---

struct UpsertRegionRequest {
  std::vector<Region> regions;
  std::vector<std::uint64_t> removed_region_ids;

  static constexpr auto Fields() {
    return std::tuple{Field{1, &UpsertRegionRequest::regions},
                      Field{2, &UpsertRegionRequest::removed_region_ids}};
  }
};

struct UpsertRegionResponse {
  std::string message;

  static constexpr auto Fields() {
    return std::tuple{OptionalField{1, &UpsertRegionResponse::message}};
  }
};

// --- Pd.RegionHeartbeat ---

// A region as the store that leads it reports it.
struct RegionHeartbeatEntry {
  std::uint64_t region_id = 0;
  std::vector<std::uint64_t> member_store_ids;
  std::vector<std::uint64_t> caught_up_learner_store_ids;
  // Members to be removed first, and the only ones that leadership may move to.
  std::vector<std::uint64_t> candidate_store_ids;

  static constexpr auto Fields() {
    return std::tuple{Field{1, &RegionHeartbeatEntry::region_id},
                      Field{2, &RegionHeartbeatEntry::member_store_ids},
                      Field{3, &RegionHeartbeatEntry::caught_up_learner_store_ids},
                      Field{4, &RegionHeartbeatEntry::candidate_store_ids}};
  }
};

struct RegionHeartbeatRequest {
  std::uint64_t store_id = 0;
  std::vector<RegionHeartbeatEntry> regions;
  std::vector<std::uint64_t>
      region_ids;  // replicas that the store holds, to be checked for staleness

  static constexpr auto Fields() {
    return std::tuple{Field{1, &RegionHeartbeatRequest::store_id},
                      Field{2, &RegionHeartbeatRequest::regions},
                      Field{3, &RegionHeartbeatRequest::region_ids}};
  }
};

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
    return std::tuple{Field{1, &ScheduleCommand::kind}, Field{2, &ScheduleCommand::region_id},
                      Field{3, &ScheduleCommand::store_id}, Field{4, &ScheduleCommand::address}};
  }
  bool operator==(const ScheduleCommand&) const = default;
};

struct RegionHeartbeatResponse {
  std::vector<ScheduleCommand> commands;

  static constexpr auto Fields() {
    return std::tuple{Field{1, &RegionHeartbeatResponse::commands}};
  }
};

}  // namespace kandb::pdpb
