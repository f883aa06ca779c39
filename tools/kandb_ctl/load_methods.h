// The requests that a load can consist of. They concern a numbered set of regions, which have
// identifiers and keys of their own and so stay out of the way of the cluster's.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "client/pd_client.h"

namespace kandb::ctl {

// Regions, peers and stores of the load count from here. As text it sorts behind the identifiers
// that a server hands out, so that a lookup finds the cluster's own regions first.
inline constexpr std::uint64_t kFirstLoadId = 9'900'000'000'000'000'000u;

// Region n has the keys from this text and n, in 8 digits, up to the next.
inline constexpr char kLoadKeyPrefix[] = "kandb-ctl-load/";

struct LoadMethod {
  std::string_view name;
  Status (*send)(client::PdClient* pd, std::uint64_t n);  // concerning region n
  bool writes;
};

inline constexpr std::string_view kUpsertRegionMethod = "upsert-region";

std::span<const LoadMethod> LoadMethods();
const LoadMethod& LoadMethodNamed(std::string_view name);  // one of LoadMethods()

// Removes the records that the method upsert-region wrote for the first `count` regions.
Status RemoveLoadRegions(client::PdClient* pd, std::uint64_t count);

}  // namespace kandb::ctl
