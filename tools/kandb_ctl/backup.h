// Backups of a state directory, and their way back.
//
// A backup is a state directory itself, with two more files, which a server ignores:
//
//   SHA256SUMS    the sum of every other file, in the format of sha256sum
//   backup.json   {made_at, made_at_unix_ms, source, id_mark, tables: [{name, bytes, inode,
//                 mtime_ns}], wals: [{name, bytes, left_out}], verified, stores, regions, records,
//                 findings}; from stores on, 0 unless verified
//
// A table that is a hard link shares its bytes with the source: it outlives the deletion of the
// source, not damage to it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kandb_ctl/finding.h"
#include "kandb_ctl/json_message.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

using ShowProgress = std::function<void(double share)>;

struct BackupOptions {
  std::string earlier;  // a backup whose tables are linked where they did not change; may be empty
  bool verify = true;
  bool copy = false;  // copies tables even where they could be linked
};

// Backs the directory of a running or stopped server up to the new directory `out`, which appears
// when it is complete. `*contents` becomes backup.json, `*findings` what verifying it found: of
// these the backup is complete, but the state has them. Takes no lock.
Status BackUp(const std::string& dir, const std::string& out, const BackupOptions& options,
              const store::StoreCrypto& crypto, const ShowProgress& progress, Json* contents,
              std::vector<Finding>* findings);

// Copies a backup to `dir`, which is empty or missing, after comparing the sums, and raises the id
// mark by `skip_ids`. Until it is complete a server refuses to start on the directory. `*result`
// becomes {first_id, id_mark_of_backup, made_at, made_at_unix_ms}.
Status Restore(const std::string& backup, const std::string& dir, std::uint64_t skip_ids,
               const store::StoreCrypto& crypto, const ShowProgress& progress, Json* result);

// Adds a WAL with a new id mark to a state directory that no server uses: `skip_ids` above the
// mark, or above the ids in use when there is no sound one. Writes the manifest, which names
// `tables`, last. `*first_id` becomes the new mark.
Status RaiseIdMark(const std::string& dir, const std::vector<std::uint64_t>& tables,
                   std::uint64_t next_file, std::uint64_t mark, std::uint64_t skip_ids,
                   const store::StoreCrypto& crypto, std::uint64_t* first_id);

}  // namespace kandb::ctl
