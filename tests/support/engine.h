// Shared by tests of the engine: the model that it must agree with, and ways to read it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lsm/lsm_db.h"

namespace kandb::testing {

using Model = std::map<std::string, std::string>;
using Batch = std::vector<lsm::Entry>;

inline void Apply(const Batch& batch, Model* model) {
  for (const lsm::Entry& entry : batch) {
    if (entry.op == lsm::kPut) {
      (*model)[entry.key] = entry.value;
    } else {
      model->erase(entry.key);
    }
  }
}

inline std::unique_ptr<lsm::LsmDb> Open(const std::string& dir,
                                        const lsm::LsmDb::Options& options) {
  std::unique_ptr<lsm::LsmDb> db;
  EXPECT_EQ(lsm::LsmDb::Open(dir, options, &db).ToString(), "OK");
  return db;
}

// Writes the batch with an engine, and closes it. The batch stays in the WAL unless it fills the
// buffer; then it is a table.
inline void WriteDirectory(const std::string& dir, std::uint64_t write_buffer_size,
                           const Batch& batch) {
  const auto db = Open(dir, {write_buffer_size, 8, false});
  EXPECT_EQ(db->Write(batch).ToString(), "OK");
  db->WaitForBackgroundIdle();
}

// Replaces `*found` by the live pairs from `start` up to `end`.
inline Status Read(const lsm::LsmDb& db, Model* found, std::string_view start = "",
                   std::string_view end = "") {
  std::vector<lsm::Entry> entries;
  Status status = db.Scan(start, end, 1000000, &entries);
  found->clear();
  for (const lsm::Entry& entry : entries) {
    EXPECT_TRUE(found->empty() || found->rbegin()->first < entry.key);
    (*found)[entry.key] = entry.value;
  }
  return status;
}

inline Model ReadAll(const lsm::LsmDb& db, std::string_view start = "", std::string_view end = "") {
  Model found;
  EXPECT_EQ(Read(db, &found, start, end).ToString(), "OK");
  return found;
}

// Looks each pair up by its key; the first failure of a lookup.
inline Status LookUp(const lsm::LsmDb& db, const Model& pairs) {
  for (const auto& [key, value] : pairs) {
    std::string got;
    bool found = false;
    if (Status s = db.Get(key, &got, &found); !s.ok()) return s;
    EXPECT_TRUE(found && got == value) << key;
  }
  return {};
}

// Names in ascending order.
inline std::vector<std::string> FilesIn(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& file : std::filesystem::directory_iterator(dir)) {
    names.push_back(file.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace kandb::testing
