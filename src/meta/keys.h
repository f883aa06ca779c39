// The keys under which the service keeps its records in the metadata store.
//
//   key                    value
//   pd/store/<id>          a Store record (pdpb/messages.h)
//   pd/region/<id>         a Region record
//   pd/bootstrapped        the byte "1" once the cluster exists
//   pd/id_alloc            the mark above every identifier handed out: 8 bytes, little-endian
//
// Identifiers in keys are plain decimal without padding, so records are scanned in the order of
// that text: region 10 before region 9. The choices of the service are made in this order.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kandb::meta {

inline constexpr std::string_view kBootstrappedKey = "pd/bootstrapped";
inline constexpr std::string_view kIdAllocKey = "pd/id_alloc";

// All keys of one kind of record: begin <= key < end. '0' is the byte after '/'.
struct KeyRange {
  std::string_view begin;
  std::string_view end;
  std::uint32_t max_records;  // the most that a scan reads
};
inline constexpr KeyRange kStoreKeys = {"pd/store/", "pd/store0", 100000};
inline constexpr KeyRange kRegionKeys = {"pd/region/", "pd/region0", 1000000};

// What numbering starts with when there is no mark.
inline constexpr std::uint64_t kFirstId = 1024;

std::string StoreKey(std::uint64_t store_id);
std::string RegionKey(std::uint64_t region_id);

}  // namespace kandb::meta
