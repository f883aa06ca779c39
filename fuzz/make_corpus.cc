// make_corpus DIRECTORY: writes what the fuzz targets start from into DIRECTORY/TARGET, made by the
// project's own encoders.

#include <filesystem>
#include <fstream>

#include "lsm/manifest.h"
#include "lsm/table_writer.h"
#include "lsm/wal.h"
#include "lsm/write_batch.h"
#include "pdpb/messages.h"
#include "rpc/frame.h"
#include "store/value_envelope.h"

using namespace kandb;

static std::string Directory(const std::string& directory) {
  std::filesystem::create_directories(directory);
  return directory;
}

int main(int, char** argv) {
  const std::string corpus = std::string(argv[1]) + "/";
  const auto seed = [&](const std::string& target, const std::string& name,
                        const std::string& bytes) {
    std::ofstream(Directory(corpus + target) + "/" + name) << bytes;
  };

  const pdpb::Store store = {1, "s1.example:20160", 2};
  const pdpb::Region region = {3, "from", "to", {4, 5}, {{6, 1, pdpb::PeerRole::kLearner}, {7, 2}}};
  const std::string routed = Encode(pdpb::GetRegionResponse{region, {6, 1}, store, {store, store}});
  seed("message", "routed", routed);
  seed("message", "bootstrap", Encode(pdpb::BootstrapRequest{store, region, {region}}));
  seed("message", "existed", Encode(pdpb::BootstrapResponse{true}));
  seed("message", "heartbeat",
       Encode(pdpb::RegionHeartbeatRequest{1, {{3, {1, 2}, {2}, {8}}}, {3}}));
  const std::string request = kanrpc::BuildFrame(kanrpc::kRequest, 1, "Pd.Tso", "");
  seed("frame", "two", request + kanrpc::BuildFrame(kanrpc::kResponse, 2, "Pd.GetRegion", routed));
  seed("sealed_value", "sealed", SealValue(store::CryptoFor("fuzz"), routed));
  seed("crc32c", "routed", routed);
  seed("flags", "all", "--number=12\n--truth\n--text\nvalue\n--help");

  std::vector<lsm::Entry> entries;
  lsm::TableBuilder table;
  crypto::BloomFilter filter(40, 10);
  for (int i = 10; i < 50; ++i) {
    const std::string key = "k" + std::to_string(i);
    entries.push_back(i % 7 == 0 ? lsm::Entry{lsm::kDelete, key, ""}
                                 : lsm::Entry{lsm::kPut, key, "v"});
    table.Add(entries.back());
    filter.Add(key);
  }
  const std::string record = lsm::BuildLogRecord({entries.begin(), entries.begin() + 8});
  seed("log", "two", record + lsm::BuildLogRecord(entries));
  seed("log", "payload", record.substr(8));
  seed("batch", "batch", record.substr(8));
  seed("bloom", "filter", filter.Serialize());
  const bool written = lsm::WriteTable(Directory(corpus + "table") + "/table", table).ok() &&
                       lsm::WriteManifest(Directory(corpus + "manifest"), {4, {3, 1}}).ok();
  return written ? 0 : 1;
}
