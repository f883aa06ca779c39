#include "meta/keys.h"

namespace kandb::meta {

std::string StoreKey(std::uint64_t store_id) {
  return std::string(kStoreKeys.begin) + std::to_string(store_id);
}

std::string RegionKey(std::uint64_t region_id) {
  return std::string(kRegionKeys.begin) + std::to_string(region_id);
}

}  // namespace kandb::meta
