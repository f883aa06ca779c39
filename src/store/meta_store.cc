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

MetaView MetaStore::CaptureView() const { return {db->CaptureView(), crypto.get()}; }

Status MetaStore::Get(std::string_view key, std::string* value, bool* found) const {
  return CaptureView().Get(key, value, found);
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
  const auto append = [out](std::string_view key, std::string_view value) {
    out->emplace_back(key, value);
    return true;
  };
  return CaptureView().ForEach(start, end, limit, append);
}

}  // namespace kandb::store
