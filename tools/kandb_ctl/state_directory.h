// What a stopped server's state directory says about the cluster. Nothing here changes a byte of
// it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "common/status.h"
#include "lsm/scan_iterator.h"
#include "lsm/sst_reader.h"
#include "pdpb/messages.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

// The live records, in the order of their keys. What cannot be opened or decoded, or has an unknown
// key, is left out and named in `oddities`.
struct ClusterState {
  bool bootstrapped = false;
  std::optional<std::uint64_t> id_mark;
  std::vector<pdpb::Store> stores;
  std::vector<pdpb::Region> regions;
  std::vector<std::string> oddities;
};

// InvalidArgument "<dir> is in use by another process" when a server runs on it: it replaces and
// deletes files at any time.
Status RefuseRunningServer(const std::string& dir);

// Reads what the server would hold after its next start. Fails where the server would fail to open
// it.
Status LoadCluster(const std::string& dir, const store::StoreCrypto& crypto, ClusterState* cluster);

// Hands every live pair to `visit`, in the order of the keys. Fails only as reading a table does.
Status ForEachRecord(const lsm::ReadView& view, const lsm::PairVisitor& visit);

// The name of a file without its directory.
std::string NameOf(const std::string& path);

// A stored pair, decoded as what its key says it is.
struct StoredRecord {
  const char* kind = "unknown";  // or "bootstrapped", "id_mark", "store", "region"
  std::variant<std::string, std::uint64_t, pdpb::Store, pdpb::Region> content;
};

// Opens and decodes a stored value. The kind is set in any case, the content on success; that of an
// unknown kind is the bytes.
Status DecodeStored(std::string_view key, std::string_view stored, const store::StoreCrypto& crypto,
                    StoredRecord* record);

// Takes a live pair into `*cluster`, all but `oddities`. Returns what is odd about the pair; empty
// when nothing is.
std::string AddToCluster(std::string_view key, std::string_view stored,
                         const store::StoreCrypto& crypto, ClusterState* cluster);

// The sealing that a file with the passphrase asks for; a newline at its end is cut. No file, an
// empty `path`, is none.
Status ReadPassphraseFile(const std::string& path, store::StoreCrypto* crypto);

// Opens a table for a look at it. On failure `*damage_offset` is the offset of what is damaged, if
// the file goes so far.
Status OpenTable(const std::string& path, std::shared_ptr<lsm::SstReader>* table,
                 std::optional<std::uint64_t>* damage_offset);

}  // namespace kandb::ctl
