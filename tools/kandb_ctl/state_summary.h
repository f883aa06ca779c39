// The contents of a state directory in numbers, and what the next start of a server will do with
// it.
#pragma once

#include <string>

#include "common/status.h"
#include "kandb_ctl/json_message.h"
#include "lsm/read_view.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

//   files       [{name, bytes, what, records, entries, error}], by name, without absent members
//   manifest    {exists, next_file, tables: newest first}
//   cluster     {bootstrapped, id_mark, stores, regions, warnings: records left out};
//               null when the next start fails
//   next_start  {fails: null or why, replays_wals, replays_records, replays_bytes,
//               memtable_bytes, first_write_switches_memtable, compacts_tables, next_file, deletes:
//               names}
//   findings    how many `state verify` has, which include the warnings
//   read_live_at  set by the caller, in UTC, for the directory of a running server
Json SummarizeDirectory(const std::string& dir, const store::StoreCrypto& crypto);

// Of these files, manifest and next_start, in that order. `*view` becomes what a server would have
// after the start; fails, and says so in next_start, where the start would.
Status SummarizeFiles(const std::string& dir, Json* summary, lsm::ReadView* view);

void PrintForPeople(const Json& summary);

}  // namespace kandb::ctl
