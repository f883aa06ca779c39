#include "store/meta_store.h"

#include <utility>

#include "lsm/lsm_db.h"
#include "store/value_envelope.h"

namespace kandb::store {

Status MetaStore::Open(const std::string& directory, const std::string& passphrase, int sync,
                       std::unique_ptr<MetaStore>* out) {
  auto opened = std::make_unique<MetaStore>(Private(), passphrase);
  const lsm::LsmDb::Options options{
      .write_buffer_size = kWriteBufferSize, .max_table_files = kMaxTableFiles, .sync = sync != 0};
  if (Status s = lsm::LsmDb::Open(directory, options, &opened->db); !s.ok()) return s;
  *out = std::move(opened);
  return {};
}

MetaStore::MetaStore(Private, const std::string& passphrase)
    : crypto(std::make_unique<StoreCrypto>(CryptoFor(passphrase))) {}

MetaStore::~MetaStore() = default;

Status MetaStore::Get(std::string_view key, std::string* value, bool* found) const {
  std::string stored;
  bool stored_found = false;
  if (Status s = db->Get(key, &stored, &stored_found); !s.ok()) return s;
  if (stored_found) {
    if (Status s = OpenValue(*crypto, stored, value); !s.ok()) return s;
  }
  *found = stored_found;
  return {};
}

Status MetaStore::Put(std::vector<KeyValue> puts) { return Write(std::move(puts), {}); }

Status MetaStore::Delete(std::vector<std::string> keys) { return Write({}, std::move(keys)); }

Status MetaStore::Write(std::vector<KeyValue> puts, std::vector<std::string> deletes) {
  std::vector<lsm::Entry> batch;
  batch.reserve(puts.size() + deletes.size());
  for (KeyValue& put : puts) {
    batch.push_back({lsm::kPut, std::move(put.first), SealValue(*crypto, std::move(put.second))});
  }
  for (std::string& key : deletes) batch.push_back({lsm::kDelete, std::move(key), {}});
  return db->Write(batch);
}

Status MetaStore::Scan(std::string_view start, std::string_view end, std::uint32_t limit,
                       std::vector<KeyValue>* out) const {
  return ForEach(start, end, limit, [out](std::string_view key, std::string_view value) {
    out->emplace_back(key, value);
    return true;
  });
}

Status MetaStore::ForEach(std::string_view start, std::string_view end, std::uint32_t limit,
                          const Visitor& visit, bool* of_one_moment) const {
  return OpenEach(visit, [&](const Visitor& visit_stored) {
    return db->ForEach(start, end, limit, visit_stored, of_one_moment);
  });
}

Status MetaStore::ForEachAtOnce(std::string_view start, std::string_view end, std::uint32_t limit,
                                const Visitor& visit) const {
  return OpenEach(visit, [&](const Visitor& visit_stored) {
    return db->ForEachAtOnce(start, end, limit, visit_stored);
  });
}

template <class Walk>
Status MetaStore::OpenEach(const Visitor& visit, Walk walk) const {
  if (!crypto->encrypted) return walk(visit);

  std::string opened;
  Status open_status;
  const auto open_and_visit = [&](std::string_view key, std::string_view stored) {
    open_status = OpenValue(*crypto, stored, &opened);
    return open_status.ok() && visit(key, opened);
  };
  if (Status s = walk(open_and_visit); !s.ok()) return s;
  return open_status;
}

}  // namespace kandb::store
