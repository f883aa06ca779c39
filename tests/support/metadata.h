// A metadata store in a directory of its own, with faults to arm below it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "store/meta_store.h"
#include "support/fault.h"
#include "support/temp_dir.h"

namespace kandb::testing {

struct Metadata {
  Metadata() { Open(); }

  void Open() { EXPECT_TRUE(store::MetaStore::Open(dir.path(), "", 0, &store).ok()); }
  void Put(std::vector<store::KeyValue> records) {
    EXPECT_TRUE(store->Put(std::move(records)).ok());
  }
  void Delete(const std::string& key) { EXPECT_TRUE(store->Delete({key}).ok()); }

  TempDir dir;
  FaultInjector fault;  // installed before the store opens
  std::unique_ptr<store::MetaStore> store;
};

}  // namespace kandb::testing
