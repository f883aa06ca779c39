// What do the parts of a request cost by themselves, beside what they are compared with: the codecs
// (per message), memtable insertion beside an ordered map, lookups in a table beside its filter
// alone, a scan of tables that interleave beside one table, and a heartbeat's handler at several
// sizes of cluster.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lsm/memtable.h"
#include "lsm/read_view.h"
#include "lsm/sst_reader.h"
#include "lsm/table_writer.h"
#include "meta/pd_service.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"
#include "support/temp_dir.h"

namespace kandb {
namespace {

void Check(const Status& status) {
  if (!status.ok()) throw std::runtime_error(status.ToString());
}

// Keys in scrambled order: 0x9e3779b1 is coprime to every count below it.
std::string RegionKey(std::uint64_t i, std::uint64_t count) {
  return "pd/region/" + std::to_string(i * 0x9e3779b1 % count);
}

pdpb::RegionHeartbeatRequest Heartbeat(std::uint64_t entry_count) {
  pdpb::RegionHeartbeatRequest request;
  request.store_id = 1;
  for (std::uint64_t id = 0; id < entry_count; ++id) {
    request.regions.push_back({id, {1, 2, 3}, {}, {2, 3}});
  }
  return request;
}

void EncodeHeartbeat(benchmark::State& state) {
  const pdpb::RegionHeartbeatRequest request = Heartbeat(1000);
  for (auto _ : state) benchmark::DoNotOptimize(Encode(request));
}
BENCHMARK(EncodeHeartbeat);

template <class M>
void DecodeMessage(benchmark::State& state, const std::string& bytes) {
  for (auto _ : state) {
    M message;
    if (!Decode(bytes, &message)) throw std::runtime_error("does not decode");
    benchmark::DoNotOptimize(message);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}
void DecodeHeartbeat(benchmark::State& state) {
  DecodeMessage<pdpb::RegionHeartbeatRequestView>(state, Encode(Heartbeat(1000)));
}
BENCHMARK(DecodeHeartbeat);

const pdpb::Region region = {
    7, "start key", "stop key", {1, 1}, {{1, 1, {}}, {2, 2, {}}, {3, 3, {}}}};
void DecodeRegion(benchmark::State& state) { DecodeMessage<pdpb::Region>(state, Encode(region)); }
BENCHMARK(DecodeRegion);

constexpr std::uint64_t kRecords = 100000;
const std::string record_value(150, 'v');

void InsertIntoMemTable(benchmark::State& state) {
  for (auto _ : state) {
    lsm::MemTable memtable;
    for (std::uint64_t i = 0; i < kRecords; ++i) {
      const std::string key = RegionKey(i, kRecords);
      memtable.Reserve(1, key.size() + record_value.size());
      memtable.Apply(std::vector<lsm::EntryView>{{lsm::kPut, key, record_value}});
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kRecords));
}
BENCHMARK(InsertIntoMemTable)->Unit(benchmark::kMillisecond);

void InsertIntoMap(benchmark::State& state) {
  for (auto _ : state) {
    std::map<std::string, std::string> map;
    for (std::uint64_t i = 0; i < kRecords; ++i) map[RegionKey(i, kRecords)] = record_value;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kRecords));
}
BENCHMARK(InsertIntoMap)->Unit(benchmark::kMillisecond);

// A table of a million records, made when it is first needed.
const lsm::SstReader& Table() {
  static const std::shared_ptr<lsm::SstReader> table = [] {
    std::vector<std::string> keys;
    for (std::uint64_t i = 0; i < 1000000; ++i) keys.push_back(RegionKey(i, 1000000));
    std::sort(keys.begin(), keys.end());
    lsm::TableBuilder builder;
    for (const std::string& key : keys) builder.Add({lsm::kPut, key, record_value});
    const testing::TempDir dir;
    std::shared_ptr<lsm::SstReader> reader;
    Check(WriteTable(dir.File("sst"), builder));
    Check(lsm::SstReader::Open(dir.File("sst"), &reader));
    return reader;
  }();
  return *table;
}

void LookUp(benchmark::State& state, const char* suffix) {
  const lsm::SstReader& table = Table();
  std::uint64_t i = 0;
  std::string value;
  for (auto _ : state) {
    bool found = false;
    std::uint8_t op = 0;
    Check(table.Get(RegionKey(i++, 1000000) + suffix, &found, &op, &value));
    benchmark::DoNotOptimize(found);
  }
}
void MakeTable(const benchmark::State&) { (void)Table(); }
void GetPresent(benchmark::State& state) { LookUp(state, ""); }
BENCHMARK(GetPresent)->Setup(MakeTable);
void GetAbsent(benchmark::State& state) { LookUp(state, "x"); }
BENCHMARK(GetAbsent)->Setup(MakeTable);
void AskFilterForAbsent(benchmark::State& state) {
  const lsm::SstReader& table = Table();
  std::uint64_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.MayContain(RegionKey(i++, 1000000) + "x"));
  }
}
BENCHMARK(AskFilterForAbsent)->Setup(MakeTable);

// All records, in as many tables as the argument says, whose keys interleave at random.
void ScanTables(benchmark::State& state) {
  const auto table_count = static_cast<std::uint64_t>(state.range(0));
  const testing::TempDir dir;
  lsm::ReadView view;
  for (std::uint64_t table = 0; table < table_count; ++table) {
    std::vector<std::string> keys;
    for (std::uint64_t i = table; i < kRecords; i += table_count) {
      keys.push_back(RegionKey(i, kRecords));
    }
    std::sort(keys.begin(), keys.end());
    lsm::TableBuilder builder;
    for (const std::string& key : keys) builder.Add({lsm::kPut, key, record_value});
    std::shared_ptr<lsm::SstReader> reader;
    Check(WriteTable(dir.File("sst"), builder));
    Check(lsm::SstReader::Open(dir.File("sst"), &reader));
    view.tables.push_back(reader);
  }
  std::size_t size = 0;
  for (auto _ : state) {
    const auto visit = [&](std::string_view, std::string_view value) {
      size += value.size();
      return true;
    };
    Check(ForEachLive(view, "", "", kRecords, visit));
  }
  benchmark::DoNotOptimize(size);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kRecords));
}
BENCHMARK(ScanTables)->Arg(1)->Arg(5)->Arg(9)->Unit(benchmark::kMillisecond);

// Decoding included: 1000 entries, 100 stores, and as many regions in the cluster as the argument
// says.
void HandleHeartbeat(benchmark::State& state) {
  const testing::TempDir dir;
  std::unique_ptr<store::MetaStore> store;
  Check(store::MetaStore::Open(dir.path(), "", 0, &store));
  for (int id = 1; id <= 100; ++id) {
    const pdpb::Store record = {static_cast<std::uint64_t>(id), "store.example:20160", 0};
    Check(store->Put({{"pd/store/" + std::to_string(id), Encode(record)}}));
  }
  meta::PdService service(store.get(), 3);
  std::string payload;
  pdpb::RegionHeartbeatResponse response;
  const auto handle = [&] {
    pdpb::RegionHeartbeatRequestView request;
    Check(Decode(payload, &request) ? Status() : Status::Corruption("heartbeat"));
    Check(service.RegionHeartbeat(request, &response));
  };
  for (std::int64_t done = 0; done < state.range(0); done += 1000) {
    pdpb::RegionHeartbeatRequest request = Heartbeat(1000);
    request.store_id = 1 + static_cast<std::uint64_t>(done) / 1000 % 100;
    for (auto& entry : request.regions) entry.region_id += static_cast<std::uint64_t>(done);
    payload = Encode(request);
    handle();
  }
  payload = Encode(Heartbeat(1000));
  for (auto _ : state) handle();
}
BENCHMARK(HandleHeartbeat)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kandb
