// The names of enumeration values in messages, as people read and write them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "pdpb/messages.h"

namespace kandb::tools {

// The known values in ascending order.
template <class Enum>
constexpr std::array<std::pair<Enum, const char*>, 0> kEnumNames = {};
template <>
inline constexpr std::array kEnumNames<pdpb::PeerRole> = {
    std::pair{pdpb::PeerRole::kVoter, "voter"}, std::pair{pdpb::PeerRole::kLearner, "learner"}};
template <>
inline constexpr std::array kEnumNames<pdpb::ScheduleKind> = {
    std::pair{pdpb::ScheduleKind::kPromoteLearner, "PromoteLearner"},
    std::pair{pdpb::ScheduleKind::kAddPeer, "AddPeer"},
    std::pair{pdpb::ScheduleKind::kRemovePeer, "RemovePeer"},
    std::pair{pdpb::ScheduleKind::kDestroyStaleReplica, "DestroyStaleReplica"},
    std::pair{pdpb::ScheduleKind::kTransferLeader, "TransferLeader"}};

// The name of a value, or its number when it is not known.
template <class Enum>
std::string EnumText(Enum value) {
  for (const auto& [known, name] : kEnumNames<Enum>) {
    if (known == value) return name;
  }
  return std::to_string(static_cast<std::uint64_t>(value));
}

}  // namespace kandb::tools
