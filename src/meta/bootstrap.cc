#include "meta/keys.h"
#include "meta/pd_service.h"

namespace kandb::meta {

namespace {

constexpr char kBootstrappedValue[] = "1";

}  // namespace

Status PdService::Bootstrap(const pdpb::BootstrapRequest& request,
                            pdpb::BootstrapResponse* response) {
  const store::KeyValue store_record = {StoreKey(request.store.id), Encode(request.store)};

  std::string marker;
  bool bootstrapped = false;
  if (!store->Get(kBootstrappedKey, &marker, &bootstrapped).ok()) bootstrapped = false;
  if (bootstrapped) {
    // The caller learns that the cluster exists even when its record could not be written.
    (void)store->Put({store_record});
    response->already_bootstrapped = true;
    return {};
  }

  // One batch, so that a crash leaves the marker and all of the records, or nothing.
  std::vector<store::KeyValue> puts = {{std::string(kBootstrappedKey), kBootstrappedValue},
                                       store_record,
                                       {RegionKey(request.region.id), Encode(request.region)}};
  for (const pdpb::Region& region : request.extra_regions) {
    puts.emplace_back(RegionKey(region.id), Encode(region));
  }
  return store->Put(std::move(puts));
}

}  // namespace kandb::meta
