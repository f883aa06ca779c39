// Finds the region that covers a key, and replaces region records. Reads the records with every
// call: nothing is cached. Thread-safe: it has no state of its own and needs no lock.
#pragma once

#include <string_view>

#include "common/status.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"

namespace kandb::meta {

class RegionRouter {
 public:
  // `metadata_store` is borrowed and must outlive the router.
  explicit RegionRouter(store::MetaStore* metadata_store) : metadata(metadata_store) {}

  // Finds the first region in key order that covers `key`, and the stores of its peers. A peer's
  // store without a record, or with one that does not decode, is left out of `stores`. `*route` is
  // written only on success. Fails with
  //   NotFound "cluster not bootstrapped": there is no region record;
  //   NotFound "no region covers key"; this and the one above are true of one moment;
  //   Corruption "bad region record": no region was found, but a record does not decode (damage
  //     after a range that is laid out as ours and does not cover the key goes unnoticed);
  //   Corruption "bad store record": the leader's does not decode;
  //   Corruption "kanrpc: payload too large": the stores do not fit a frame;
  // or as reading the metadata store does.
  Status Find(std::string_view key, pdpb::GetRegionResponse* route) const;

  // Writes and deletes region records as they are given, all or nothing, without comparing epochs.
  // Fails as the store's write does.
  Status Upsert(const pdpb::UpsertRegionRequest& request);

 private:
  store::MetaStore* const metadata;
};

}  // namespace kandb::meta
