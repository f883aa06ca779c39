// The manifest, which names the tables that make up the database and the next file number. Text; a
// record is a word and a number in unsigned decimal:
//
//   next_file <number>      the next unused number; the last such record counts
//   sst <number>            a live table; newest first
//
// A writer ends each record with a newline. A reader takes any white space before a word or number,
// ends a word after 31 bytes or at a zero byte, takes a number with a sign, and for one beyond 64
// bits the largest. Other words are skipped; the first record that is not a word and a number ends
// the file. No state between calls; the engine serialises them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"

namespace kandb::lsm {

struct ManifestState {
  std::uint64_t next_file = 0;
  std::vector<std::uint64_t> sst_files;  // newest first
};

// Replaces the manifest of `dir` through "MANIFEST.tmp" and a rename. Corruption "manifest create:
// " or "manifest write: " and the system's text, or "manifest rename failed"; the old manifest is
// then untouched, and "MANIFEST.tmp" stays until the next time.
Status WriteManifest(const std::string& dir, const ManifestState& state);

// Reads the manifest of `dir`. `*exists` tells whether there is one; if not, `*state` does not
// change, and `next_file` does not when no record sets it. Corruption "manifest open: " or
// "manifest read: " and the system's text; `*state` does not change then.
Status ReadManifest(const std::string& dir, ManifestState* state, bool* exists);

// A record as it is in the file; the word may be unknown.
struct ManifestRecord {
  std::uint64_t offset;   // of the word
  std::string_view word;  // lives during the visit
  std::uint64_t number;
};
// Hands the records of the manifest at `path` to `visit`, in order, after reading all of it.
// `*damage_offset` becomes the start of the rest that is not a record, if there is one. Fails as
// ReadManifest does.
Status ForEachManifestRecord(const std::string& path,
                             const std::function<void(const ManifestRecord&)>& visit, bool* exists,
                             std::optional<std::uint64_t>* damage_offset);

}  // namespace kandb::lsm
