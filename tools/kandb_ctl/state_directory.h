// The contents of a stopped server's state directory. Nothing here changes a byte of it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "common/status.h"
#include "kandb_ctl/region_list.h"
#include "lsm/read_view.h"
#include "lsm/sst_reader.h"
#include "pdpb/messages.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

// The live records, in the order of their keys. A record that cannot be opened or decoded, or has
// an unknown key, is left out and named in `warnings`.
struct ClusterState {
  bool bootstrapped = false;
  std::optional<std::uint64_t> id_mark;
  std::vector<pdpb::Store> stores;
  RegionList regions;
  std::vector<std::string> warnings;
};

// InvalidArgument "<dir> is in use by another process" when a server runs on it: it replaces and
// deletes files at any time.
Status RefuseRunningServer(const std::string& dir);

// NotFound when nothing in the directory is part of a state: no manifest, WAL or table. A server
// takes such a directory for a new one.
Status RequireState(const std::string& dir);

// Prints why something could not be read and returns the exit status for it.
int FailToRead(const Status& status);

// Reads the records that the server would have after its next start. Fails where the server would
// fail to open the directory.
Status LoadCluster(const std::string& dir, const store::StoreCrypto& crypto, ClusterState* cluster);
Status LoadCluster(const lsm::ReadView& view, const store::StoreCrypto& crypto,
                   ClusterState* cluster);

// Hands every live pair to `visit`, in the order of the keys. Fails only as reading a table does.
Status ForEachRecord(const lsm::ReadView& view, const lsm::PairVisitor& visit);

// The name of a file without its directory.
std::string NameOf(const std::string& path);

// A stored pair, decoded by its key.
struct StoredRecord {
  const char* kind = "unknown";  // or "bootstrapped", "id_mark", "store", "region"
  std::variant<std::string, std::uint64_t, pdpb::Store, pdpb::Region> content;
};

// Opens and decodes a stored value. The kind is always set, the content on success; of an unknown
// kind it is the bytes.
Status DecodeStored(std::string_view key, std::string_view stored, const store::StoreCrypto& crypto,
                    StoredRecord* record);

// Adds a live pair to `*cluster`, except for `warnings`. Returns what is wrong with the pair, empty
// when nothing is.
std::string AddToCluster(std::string_view key, std::string_view stored,
                         const store::StoreCrypto& crypto, ClusterState* cluster);

// Reads the passphrase of sealed values from a file, without a newline at its end. An empty `path`
// means that values are not sealed. InvalidArgument for a file without a passphrase.
Status ReadPassphraseFile(const std::string& path, store::StoreCrypto* crypto);

// Opens a table. On failure `*damage_offset` is the offset of the damaged part, none when no footer
// can be read.
Status OpenTable(const std::string& path, std::shared_ptr<lsm::SstReader>* table,
                 std::optional<std::uint64_t>* damage_offset);

}  // namespace kandb::ctl
