// Several reads of the metadata store that work on the same state.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "common/status.h"

namespace kandb::lsm {
struct ReadView;
}  // namespace kandb::lsm

namespace kandb::store {

struct StoreCrypto;

// The records as they stood when the view was captured, but for those that were written later and
// are still in memory when they are read. Capturing one view for a request spares it the engine's
// lock for each read. Thread-safe. Must not outlive its store. Failures are those of MetaStore.
class MetaView {
 public:
  MetaView(std::shared_ptr<const lsm::ReadView> captured, const StoreCrypto* store_crypto)
      : view(std::move(captured)), crypto(store_crypto) {}

  // `*value` is set only when `*found`; a missing key is no failure.
  Status Get(std::string_view key, std::string* value, bool* found) const;

  // Hands the pairs with start <= key < end (empty: no bound) to `visit`, in key order and at most
  // `limit` of them; false from it stops. The string views live only during the call. A value that
  // cannot be opened ends it with that failure. `*of_one_moment`, unless null, becomes whether the
  // pairs are the state of one moment; with more than 4,096 of them a write meanwhile may prevent
  // that.
  using Visitor = std::function<bool(std::string_view key, std::string_view value)>;
  Status ForEach(std::string_view start, std::string_view end, std::uint32_t limit,
                 const Visitor& visit, bool* of_one_moment = nullptr) const;

  // The same, but always the state of one moment; writers wait while it begins.
  Status ForEachAtOnce(std::string_view start, std::string_view end, std::uint32_t limit,
                       const Visitor& visit) const;

 private:
  // `walk(visit)` is a walk of the engine.
  template <class Walk>
  Status OpenEach(const Visitor& visit, Walk walk) const;

  std::shared_ptr<const lsm::ReadView> view;
  const StoreCrypto* crypto;  // borrowed
};

}  // namespace kandb::store
