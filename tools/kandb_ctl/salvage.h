// Reads what can still be read of a damaged state directory, and makes a new one of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/status.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

// A part of a file that did not come back.
struct Loss {
  std::string file;
  std::uint64_t begin = 0;  // offsets in the file; both 0 for the file as a whole
  std::uint64_t end = 0;
  std::string after_key = {};   // in a table: the keys that were read before and after the part; an
  std::string before_key = {};  // empty one is no bound
  std::string text;
};

struct Salvaged {
  std::vector<Loss> losses;
  std::uint64_t records = 0;
  std::uint64_t first_id = 0;  // the new mark
};

// Takes every table and WAL record that can be read, the newest operation on each key as the
// engine orders them, and writes the live ones to the new directory `out`. A put that does not
// decode is a loss: what an older file has of its key comes back instead. The id mark is raised by
// `skip_ids`. Nothing in `dir` changes.
Status Salvage(const std::string& dir, const std::string& out, std::uint64_t skip_ids,
               const store::StoreCrypto& crypto, Salvaged* salvaged);

}  // namespace kandb::ctl
