// What the public engines have in common: their interfaces descend from one another.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "bench_program.h"
#include "contestant.h"

namespace kandb::bench {

// `Library` names the types of one library: Db, Iterator, ReadOptions, WriteOptions, Slice, Status.
template <class Library>
class PublicEngine : public Contestant {
 public:
  void Put(std::string_view key, std::string_view value) final {
    Must(db->Put(write_options, ToSlice(key), ToSlice(value)));
  }

  bool Get(std::string_view key, std::string* value) final {
    const auto status = db->Get({}, ToSlice(key), value);
    Check(status.ok() || status.IsNotFound(), status.ToString());
    return status.ok();
  }

  ScanResult Scan() final {
    ScanResult result;
    const std::unique_ptr<typename Library::Iterator> at(
        db->NewIterator(typename Library::ReadOptions()));
    for (at->SeekToFirst(); at->Valid(); at->Next()) {
      result.Add({at->key().data(), at->key().size()}, {at->value().data(), at->value().size()});
    }
    Must(at->status());
    return result;
  }

 protected:
  static void Must(const typename Library::Status& status) {
    Check(status.ok(), status.ToString());
  }

  typename Library::WriteOptions write_options;
  std::unique_ptr<typename Library::Db> db;

 private:
  static typename Library::Slice ToSlice(std::string_view bytes) {
    return {bytes.data(), bytes.size()};
  }
};

}  // namespace kandb::bench
