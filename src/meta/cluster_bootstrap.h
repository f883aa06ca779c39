// Creates the first records of a cluster, and registers stores once it exists. Thread-safe: it has
// no state of its own and needs no lock. Of two first calls at once both succeed, and the later
// batch wins.
#pragma once

#include "common/status.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"

namespace kandb::meta {

class ClusterBootstrap {
 public:
  // `metadata_store` is borrowed and must outlive this.
  explicit ClusterBootstrap(store::MetaStore* metadata_store) : metadata(metadata_store) {}

  // Records the first store and regions, all or nothing; fails as the store's write does. Once a
  // cluster exists, `*already_bootstrapped` becomes true, only the calling store's record is
  // written, and the call succeeds even when that record could not be. The request is trusted as it
  // is.
  Status Bootstrap(const pdpb::BootstrapRequest& request, bool* already_bootstrapped);

 private:
  store::MetaStore* const metadata;
};

}  // namespace kandb::meta
