#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <set>
#include <utility>

#include "kandb_ctl/command.h"
#include "kandb_ctl/connection.h"
#include "kandb_ctl/json_input.h"
#include "kandb_ctl/key_text.h"
#include "kandb_ctl/options.h"
#include "kandb_ctl/row_writer.h"
#include "tools/common/remote_failure.h"
#include "tools/common/text_table.h"

namespace kandb::ctl {

namespace {

std::string EpochText(const pdpb::RegionEpoch& epoch) {
  return std::to_string(epoch.conf_version) + "." + std::to_string(epoch.version);
}

// --- region get ---

// Empty for an unknown store, which the answer leaves out.
std::string AddressOf(const pdpb::GetRegionResponse& answer, std::uint64_t store_id) {
  for (const pdpb::Store& store : answer.stores) {
    if (store.id == store_id) return KeyText(store.address);
  }
  return "";
}

int RunGet(const Context& context, const std::string& key) {
  Connection connection(context);
  pdpb::GetRegionResponse answer;
  if (Status s = connection.pd.GetRegion({key}, &answer); !s.ok()) return FailCall(context, s);
  if (context.json) {
    PrintJson(ToJson(answer));
    return kExitYes;
  }
  const pdpb::Region& region = answer.region;
  std::printf("region %" PRIu64 "\nstart  %s\nend    %s\nepoch  %s\n\n", region.id,
              KeyCell(region.start_key).c_str(), KeyCell(region.end_key).c_str(),
              EpochText(region.epoch).c_str());
  tools::TextTable table({"peer", "store", "role", "leader", "address"});
  for (const pdpb::Peer& peer : region.peers) {
    table.AddRow({std::to_string(peer.id), std::to_string(peer.store_id), EnumText(peer.role),
                  peer == answer.leader ? "yes" : "", AddressOf(answer, peer.store_id)});
  }
  table.Print();
  return kExitYes;
}

void AddGet(CLI::App* region, Context* context) {
  auto key = std::make_shared<std::string>();
  CLI::App* command = region->add_subcommand(
      "get",
      "Shows the region that covers a key.\n"
      "The leader is the first peer: the server does not know who really leads.");
  AddKeyOption(command, "KEY", key.get(), "the key")->required()->type_name("");
  command->callback([=] { context->run = [=] { return RunGet(*context, *key); }; });
}

// --- region list ---

// Prints regions one at a time, so that a walk that takes minutes shows where it is.
class RegionWriter {
 public:
  explicit RegionWriter(bool as_json)
      : json(as_json),
        rows({{"region", 8},
              {"start", 16},
              {"end", 16},
              {"epoch", 6},
              {"stores", 16},
              {"leader", 0}},
             as_json) {}
  ~RegionWriter() {
    if (json && count > 0) std::printf("]\n");
    if (shown) std::fprintf(stderr, "\r\033[K");
  }
  RegionWriter(const RegionWriter&) = delete;
  RegionWriter& operator=(const RegionWriter&) = delete;

  void Write(const pdpb::GetRegionResponse& answer);
  std::uint64_t written() const { return count; }

 private:
  void ShowProgress(const std::string& key);

  const bool json;
  const RowWriter rows;
  // Beside the rows on one terminal it would be in their way.
  const bool watched = ::isatty(STDERR_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 0;
  std::chrono::steady_clock::time_point next_progress;
  std::uint64_t count = 0;
  bool shown = false;
};

std::string PeersText(const std::vector<pdpb::Peer>& peers) {
  std::string text;
  for (const pdpb::Peer& peer : peers) {
    if (!text.empty()) text += ",";
    text += std::to_string(peer.store_id);
    if (peer.role != pdpb::PeerRole::kVoter) text += "(" + EnumText(peer.role) + ")";
  }
  return text;
}

void RegionWriter::Write(const pdpb::GetRegionResponse& answer) {
  const pdpb::Region& region = answer.region;
  if (json) {
    std::printf("%s%s\n", count == 0 ? "[" : ",", JsonText(ToJson(answer)).c_str());
  } else {
    rows.Write({{"region", std::to_string(region.id)},
                {"start", KeyCell(region.start_key)},
                {"end", KeyCell(region.end_key)},
                {"epoch", EpochText(region.epoch)},
                {"stores", PeersText(region.peers)},
                {"leader", region.peers.empty() ? "" : std::to_string(answer.leader.store_id)}});
  }
  ++count;
  (void)std::fflush(stdout);
  ShowProgress(region.end_key);
}

void RegionWriter::ShowProgress(const std::string& key) {
  constexpr std::chrono::milliseconds kInterval{200};
  const auto now = std::chrono::steady_clock::now();
  if (!watched || now < next_progress) return;
  next_progress = now + kInterval;
  shown = true;
  std::fprintf(stderr, "\r\033[K%" PRIu64 " regions, up to %.60s", count, KeyCell(key).c_str());
}

// Looks up the region of `key`, then that of its end, and so on, at most `limit` regions.
// `*next_key` is where to continue after the last one, empty when there is no more.
Status WalkRegions(client::PdClient* pd, std::string key, std::uint32_t limit, RegionWriter* writer,
                   std::string* next_key) {
  while (writer->written() < limit) {
    pdpb::GetRegionResponse answer;
    Status status = pd->GetRegion({key}, &answer);
    if (tools::RemoteFailureOf(status) == tools::RemoteFailure::kNoRegionCoversKey) {
      return Status::InvalidArgument("gap at " + KeyCell(key) +
                                     ": no region covers it; the walk ends here "
                                     "(continue with --start-key)");
    }
    if (!status.ok()) return status;
    writer->Write(answer);
    const std::string& end_key = answer.region.end_key;
    if (end_key.empty()) return {};
    if (end_key <= key) {
      return Status::InvalidArgument("region " + std::to_string(answer.region.id) + " ends at " +
                                     KeyCell(end_key) + ", not after " + KeyCell(key) +
                                     ", which the server says it covers; the walk ends here");
    }
    key = end_key;
  }
  *next_key = key;
  return {};
}

int RunList(const Context& context, const std::string& start_key, std::uint32_t limit) {
  Connection connection(context);
  std::string next_key;
  Status status;
  {
    RegionWriter writer(context.json);
    status = WalkRegions(&connection.pd, start_key, limit, &writer, &next_key);
  }
  // Regions come before the failure even where both streams are one.
  (void)std::fflush(stdout);
  if (!status.ok()) return FailCall(context, status);
  if (!next_key.empty()) {
    std::fprintf(stderr, "kandb-ctl: limit reached at %s (continue with --start-key)\n",
                 KeyText(next_key).c_str());
  }
  return kExitYes;
}

void AddList(CLI::App* region, Context* context) {
  struct Arguments {
    std::string start_key;
    std::uint32_t limit = 1000;
  };
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = region->add_subcommand(
      "list",
      "Lists the regions in the order of their keys.\n"
      "The server only answers which region covers a key, so the list follows the end keys from\n"
      "region to region. It ends with status 1 at a key that no region covers.");
  AddKeyOption(command, "--start-key", &arguments->start_key, "key to begin at");
  command->add_option("--limit", arguments->limit, "most regions to list")
      ->check(CLI::Range(std::uint32_t{1}, std::uint32_t{1000000}))
      ->capture_default_str();
  command->callback([=] {
    context->run = [=] { return RunList(*context, arguments->start_key, arguments->limit); };
  });
}

// --- region upsert, region remove ---

// Why a region record is almost surely a mistake; empty when it does not look like one.
std::string SlipIn(const pdpb::Region& region) {
  if (region.id == 0) return "region 0: no region has this id";
  const std::string name = "region " + std::to_string(region.id);
  if (!region.end_key.empty() && region.start_key >= region.end_key) {
    return name + ": it ends at " + KeyCell(region.end_key) + ", not after its start " +
           KeyCell(region.start_key);
  }
  return "";
}

// As SlipIn, of a request as a whole, and by what the server has.
Status FindSlip(const pdpb::UpsertRegionRequest& request, client::PdClient* pd, std::string* slip) {
  std::set<std::uint64_t> changed(request.removed_region_ids.begin(),
                                  request.removed_region_ids.end());
  const pdpb::Region* whole = nullptr;
  for (const pdpb::Region& region : request.regions) {
    if (*slip = SlipIn(region); !slip->empty()) return {};
    if (region.start_key.empty() && region.end_key.empty()) whole = &region;
    changed.insert(region.id);
  }
  if (whole == nullptr) return {};
  const std::string covers_all =
      "region " + std::to_string(whole->id) + ": it covers every key, beside region ";
  if (request.regions.size() > 1) {
    const bool first = whole == &request.regions[0];
    *slip = covers_all + std::to_string(request.regions[first ? 1 : 0].id);
    return {};
  }
  // The first region that stays; those that are written or removed do not count.
  std::string key;
  for (std::size_t step = 0; step <= changed.size(); ++step) {
    pdpb::GetRegionResponse answer;
    Status status = pd->GetRegion({key}, &answer);
    if (tools::RemoteFailureOf(status) != tools::RemoteFailure::kNone) return {};  // no such region
    if (!status.ok()) return status;
    if (!changed.contains(answer.region.id)) {
      *slip = covers_all + std::to_string(answer.region.id);
      return {};
    }
    key = answer.region.end_key;
    if (key.empty()) return {};
  }
  return {};
}

// The server names the stores of a region only once the region is there.
void WarnOfUnknownStores(const pdpb::UpsertRegionRequest& request, client::PdClient* pd) {
  constexpr std::size_t kMostLookups = 100;
  for (std::size_t i = 0; i < std::min(request.regions.size(), kMostLookups); ++i) {
    const pdpb::Region& region = request.regions[i];
    pdpb::GetRegionResponse answer;
    if (!pd->GetRegion({region.start_key}, &answer).ok() || answer.region.id != region.id) continue;
    for (const pdpb::Peer& peer : answer.region.peers) {
      const auto is_its_store = [&](const pdpb::Store& store) { return store.id == peer.store_id; };
      if (std::ranges::any_of(answer.stores, is_its_store)) continue;
      std::fprintf(stderr,
                   "kandb-ctl: warning: region %" PRIu64 ": peer %" PRIu64
                   " is on unknown store %" PRIu64 "\n",
                   region.id, peer.id, peer.store_id);
    }
  }
}

std::string IdsText(const std::vector<std::uint64_t>& ids) {
  std::string text;
  for (const std::uint64_t id : ids) text += " " + std::to_string(id);
  return text;
}

int Write(const Context& context, const pdpb::UpsertRegionRequest& request, bool force) {
  Connection connection(context);
  if (!force) {
    std::string slip;
    if (Status s = FindSlip(request, &connection.pd, &slip); !s.ok()) return FailCall(context, s);
    if (!slip.empty()) return Fail(Status::InvalidArgument(slip + " (--force writes it)"));
  }
  const std::vector<std::uint64_t>& removed = request.removed_region_ids;
  std::vector<std::uint64_t> found;
  std::vector<std::uint64_t> missing;
  if (!removed.empty()) {
    if (Status s = FindRegionRecords(&connection.pd, removed, &found, &missing); !s.ok()) {
      return FailCall(context, s);
    }
  }
  pdpb::UpsertRegionResponse answer;
  if (Status s = connection.pd.UpsertRegion(request, &answer); !s.ok()) {
    return FailCall(context, s);
  }
  if (context.json) {
    Json json = {{"written", request.regions.size()}, {"removed", removed.size()}};
    if (!removed.empty()) {
      json["had_record"] = found;
      json["had_no_record"] = missing;
    }
    PrintJson(json);
  } else {
    std::printf("written: %zu, removed: %zu\n", request.regions.size(), removed.size());
    if (!found.empty()) std::printf("had a record:%s\n", IdsText(found).c_str());
    if (!missing.empty()) std::printf("had no record:%s\n", IdsText(missing).c_str());
  }
  (void)std::fflush(stdout);
  WarnOfUnknownStores(request, &connection.pd);
  return kExitYes;
}

int WriteFromStdin(const Context& context, bool force) {
  pdpb::UpsertRegionRequest request;
  const auto take = [&](const Json& json) {
    if (json.is_array()) {
      FromJson(json, "regions", &request.regions);
    } else {
      FromJson(json, "request", &request);
    }
  };
  return ReadJson(take) ? Write(context, request, force) : kExitUsage;
}

void AddUpsert(CLI::App* region, Context* context) {
  struct Arguments {
    bool from_stdin = false;
    bool force = false;
    pdpb::UpsertRegionRequest request{.regions = {{}}, .removed_region_ids = {}};
  };
  auto arguments = std::make_shared<Arguments>();
  pdpb::Region* one = &arguments->request.regions[0];
  CLI::App* command = region->add_subcommand(
      "upsert",
      "Writes region records, each replacing the one with its id; all or none.\n"
      "Epochs are not compared: an older one replaces a newer one. Refused without --force: id 0, "
      "a\n"
      "range that ends where it starts or before, a region of every key beside others. Of peers "
      "on\n"
      "unknown stores it warns.");
  const CLI::Option* id = AddIdOption(command, "--id", &one->id, "the region");
  AddRegionOptions(command, one);
  command->add_flag(
      "--stdin", arguments->from_stdin,
      "read JSON from standard input: an array of regions, or an object with regions and "
      "removed_region_ids");
  command->add_flag("--force", arguments->force, "write what looks like a mistake too");
  command->callback([=] {
    CheckStdinOr(*id, *command, arguments->from_stdin);
    context->run = [=] {
      return arguments->from_stdin ? WriteFromStdin(*context, arguments->force)
                                   : Write(*context, arguments->request, arguments->force);
    };
  });
}

void AddRemove(CLI::App* region, Context* context) {
  auto request = std::make_shared<pdpb::UpsertRegionRequest>();
  CLI::App* command = region->add_subcommand(
      "remove", "Removes region records, all or none, and says which ids had one");
  AddIdOption(command, "ID", &request->removed_region_ids, "the regions")
      ->required()
      ->type_name("");
  command->callback([=] { context->run = [=] { return Write(*context, *request, true); }; });
}

}  // namespace

void AddRegionCommands(CLI::App* app, Context* context) {
  CLI::App* region = app->add_subcommand("region", "Looks up, lists and writes regions");
  region->require_subcommand(1);
  AddGet(region, context);
  AddList(region, context);
  AddUpsert(region, context);
  AddRemove(region, context);
}

}  // namespace kandb::ctl
