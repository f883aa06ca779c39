#include <cinttypes>
#include <cstdio>
#include <memory>
#include <utility>

#include "kandb_ctl/command.h"
#include "kandb_ctl/connection.h"
#include "kandb_ctl/json_input.h"
#include "kandb_ctl/key_text.h"
#include "kandb_ctl/options.h"
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
  if (Status s = connection.pd.GetRegion({key}, &answer); !s.ok()) return Fail(s);
  if (context.json) {
    PrintJson(ToJson(answer));
    return kExitOk;
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
  return kExitOk;
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

// Looks up the region of `key`, then that of its end, and so on, at most `limit` regions.
// `*next_key` is where to continue after the last one, empty when there is no more.
Status WalkRegions(client::PdClient* pd, std::string key, std::uint32_t limit,
                   std::vector<pdpb::GetRegionResponse>* found, std::string* next_key) {
  while (found->size() < limit) {
    pdpb::GetRegionResponse answer;
    Status status = pd->GetRegion({key}, &answer);
    if (tools::RemoteFailureOf(status) == tools::RemoteFailure::kNoRegionCoversKey) {
      return Status::NotFound("gap at " + KeyCell(key) +
                              ": no region covers it; the walk ends here "
                              "(continue with --start-key)");
    }
    if (!status.ok()) return status;
    const std::string end_key = answer.region.end_key;
    found->push_back(std::move(answer));
    if (end_key.empty()) return {};
    if (end_key <= key) {
      return Status::Corruption("region " + std::to_string(found->back().region.id) + " ends at " +
                                KeyCell(end_key) + ", not after " + KeyCell(key) +
                                ", which the server says it covers; the walk ends here");
    }
    key = end_key;
  }
  *next_key = key;
  return {};
}

std::string PeersText(const std::vector<pdpb::Peer>& peers) {
  std::string text;
  for (const pdpb::Peer& peer : peers) {
    if (!text.empty()) text += ",";
    text += std::to_string(peer.store_id);
    if (peer.role != pdpb::PeerRole::kVoter) text += "(" + EnumText(peer.role) + ")";
  }
  return text;
}

int RunList(const Context& context, const std::string& start_key, std::uint32_t limit) {
  Connection connection(context);
  std::vector<pdpb::GetRegionResponse> found;
  std::string next_key;
  const Status status = WalkRegions(&connection.pd, start_key, limit, &found, &next_key);
  if (found.empty()) return Fail(status);
  if (context.json) {
    PrintJson(ToJson(found));
  } else {
    tools::TextTable table({"region", "start", "end", "epoch", "stores", "leader"});
    for (const auto& [region, leader, leader_store, stores] : found) {
      table.AddRow({std::to_string(region.id), KeyCell(region.start_key), KeyCell(region.end_key),
                    EpochText(region.epoch), PeersText(region.peers),
                    region.peers.empty() ? "" : std::to_string(leader.store_id)});
    }
    table.Print();
  }
  // Regions come before the failure even where both streams are one.
  (void)std::fflush(stdout);
  if (!status.ok()) return Fail(status);
  if (!next_key.empty()) {
    std::fprintf(stderr, "kandb-ctl: limit reached at %s (continue with --start-key)\n",
                 KeyText(next_key).c_str());
  }
  return kExitOk;
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

int Write(const Context& context, const pdpb::UpsertRegionRequest& request) {
  Connection connection(context);
  pdpb::UpsertRegionResponse answer;
  if (Status s = connection.pd.UpsertRegion(request, &answer); !s.ok()) return Fail(s);
  if (context.json) {
    PrintJson(
        {{"written", request.regions.size()}, {"removed", request.removed_region_ids.size()}});
  } else {
    std::printf("written: %zu, removed: %zu\n", request.regions.size(),
                request.removed_region_ids.size());
  }
  return kExitOk;
}

int WriteFromStdin(const Context& context) {
  pdpb::UpsertRegionRequest request;
  const auto take = [&](const Json& json) {
    if (json.is_array()) {
      FromJson(json, "regions", &request.regions);
    } else {
      FromJson(json, "request", &request);
    }
  };
  return ReadJson(take) ? Write(context, request) : kExitUsage;
}

void AddUpsert(CLI::App* region, Context* context) {
  struct Arguments {
    bool from_stdin = false;
    pdpb::UpsertRegionRequest request{.regions = {{}}, .removed_region_ids = {}};
  };
  auto arguments = std::make_shared<Arguments>();
  pdpb::Region* one = &arguments->request.regions[0];
  CLI::App* command = region->add_subcommand(
      "upsert",
      "Writes region records, each replacing the one with its id; all or none.\n"
      "Epochs are not compared: an older one replaces a newer one.");
  const CLI::Option* id = AddIdOption(command, "--id", &one->id, "the region");
  AddRegionOptions(command, one);
  command->add_flag(
      "--stdin", arguments->from_stdin,
      "read JSON from standard input: an array of regions, or an object with regions and "
      "removed_region_ids");
  command->callback([=] {
    CheckStdinOr(*id, *command, arguments->from_stdin);
    context->run = [=] {
      return arguments->from_stdin ? WriteFromStdin(*context) : Write(*context, arguments->request);
    };
  });
}

void AddRemove(CLI::App* region, Context* context) {
  auto request = std::make_shared<pdpb::UpsertRegionRequest>();
  CLI::App* command = region->add_subcommand(
      "remove", "Removes region records, all or none; one that is not there counts as removed");
  AddIdOption(command, "ID", &request->removed_region_ids, "the regions")
      ->required()
      ->type_name("");
  command->callback([=] { context->run = [=] { return Write(*context, *request); }; });
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
