// The requests of a load. They are about a numbered set of regions with identifiers and keys of
// their own, apart from those of the cluster.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "client/pd_client.h"

namespace kandb::ctl {

// Regions, peers and stores of the load count from here. As text it sorts after the identifiers
// that a server hands out, so that a lookup finds the cluster's own regions first.
inline constexpr std::uint64_t kFirstLoadId = 9'900'000'000'000'000'000u;

// Region n has the keys from this text and n, in 8 digits, up to the next.
inline constexpr char kLoadKeyPrefix[] = "kandb-ctl-load/";

struct LoadMethod {
  std::string_view name;
  Status (*send)(client::PdClient* pd, std::uint64_t n);  // about region n
  bool writes;
};

inline constexpr std::string_view kUpsertRegionMethod = "upsert-region";

std::span<const LoadMethod> LoadMethods();
const LoadMethod& LoadMethodNamed(std::string_view name);  // one of LoadMethods()

// Removes the records that the method upsert-region wrote for the first `count` regions. Sets
// `*removed` to how many there were.
Status RemoveLoadRegions(client::PdClient* pd, std::uint64_t count, std::size_t* removed);

}  // namespace kandb::ctl
