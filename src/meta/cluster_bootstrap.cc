#include "meta/cluster_bootstrap.h"

#include <string>
#include <utility>
#include <vector>

#include "meta/keys.h"

namespace kandb::meta {

namespace {

constexpr char kBootstrappedValue[] = "1";

// A marker that cannot be read counts as absent.
bool IsBootstrapped(const store::MetaStore& metadata) {
  std::string marker;
  bool found = false;
  return metadata.Get(kBootstrappedKey, &marker, &found).ok() && found;
}

}  // namespace

Status ClusterBootstrap::Bootstrap(const pdpb::BootstrapRequest& request,
                                   bool* already_bootstrapped) {
  const store::KeyValue store_record = {StoreKey(request.store.id), Encode(request.store)};
  if (IsBootstrapped(*metadata)) {
    // The caller learns that the cluster exists even when its record could not be written.
    (void)metadata->Put({store_record});
    *already_bootstrapped = true;
    return {};
  }

  // One batch, so that a crash leaves the marker and all of the records, or nothing.
  std::vector<store::KeyValue> puts = {{std::string(kBootstrappedKey), kBootstrappedValue},
                                       store_record,
                                       {RegionKey(request.region.id), Encode(request.region)}};
  for (const pdpb::Region& region : request.extra_regions) {
    puts.emplace_back(RegionKey(region.id), Encode(region));
  }
  if (Status s = metadata->Put(std::move(puts)); !s.ok()) return s;
  *already_bootstrapped = false;
  return {};
}

}  // namespace kandb::meta
