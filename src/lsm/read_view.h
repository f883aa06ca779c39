// The state that a read works on: the memtables and tables of one moment, newest first, and the
// reads of a single key and of a range in it. The newest memtable may still be written to, so a
// later read of the same view may see later writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"
#include "lsm/memtable.h"
#include "lsm/sst_reader.h"

namespace kandb::lsm {

// Never changes once made; keeps everything it refers to alive.
struct ReadView {
  std::vector<std::shared_ptr<const MemTable>> memtables;
  std::vector<std::shared_ptr<const SstReader>> tables;
};

// The newest operation on `key`. `*value` is set only when `*found`: when that is a put. Fails only
// as reading a table does.
Status GetLive(const ReadView& view, std::string_view key, std::string* value, bool* found);

// Hands the live pairs of `view` with start <= key < end (empty: no bound) to `visit`, in key order
// and at most `limit` of them; `visit` returns false to stop. The views it is given live only
// during the call. Fails only as reading a table does.
//
// `*of_one_moment`, unless null, becomes whether the visited pairs are the state of one moment:
// nothing was written meanwhile, or no memtable has more than a chunk of entries in the range.
using PairVisitor = std::function<bool(std::string_view key, std::string_view value)>;
Status ForEachLive(const ReadView& view, std::string_view start, std::string_view end,
                   std::uint32_t limit, const PairVisitor& visit, bool* of_one_moment = nullptr);

// The same, but always the state of one moment, whatever is written meanwhile: each memtable is
// listed as a whole, in 8 bytes an entry, and a writer waits until it is.
Status ForEachLiveAtOnce(const ReadView& view, std::string_view start, std::string_view end,
                         std::uint32_t limit, const PairVisitor& visit);

}  // namespace kandb::lsm
