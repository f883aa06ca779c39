#include "kandb_ctl/bootstrap_command.h"

#include <cinttypes>
#include <cstdio>
#include <memory>

#include "kandb_ctl/connection.h"
#include "kandb_ctl/json_input.h"
#include "kandb_ctl/key_text.h"
#include "kandb_ctl/options.h"

namespace kandb::ctl {

namespace {

// Replaces identifiers that are 0 by new ones of the server, and the store of a peer that is 0 by
// the store of the request.
Status FillIds(client::PdClient* pd, pdpb::BootstrapRequest* request) {
  std::vector<std::uint64_t*> missing;
  const auto want = [&](std::uint64_t* id) {
    if (*id == 0) missing.push_back(id);
  };
  const auto want_all_of = [&](pdpb::Region* region) {
    want(&region->id);
    for (pdpb::Peer& peer : region->peers) want(&peer.id);
  };
  want(&request->store.id);
  want_all_of(&request->region);
  for (pdpb::Region& region : request->extra_regions) want_all_of(&region);
  if (!missing.empty()) {
    pdpb::AllocIdResponse ids;
    const auto count = static_cast<std::uint32_t>(missing.size());
    if (Status s = pd->AllocId({count}, &ids); !s.ok()) return s;
    for (std::uint64_t* id : missing) *id = ids.first_id++;
  }
  const auto place = [&](pdpb::Region* region) {
    for (pdpb::Peer& peer : region->peers) {
      if (peer.store_id == 0) peer.store_id = request->store.id;
    }
  };
  place(&request->region);
  for (pdpb::Region& region : request->extra_regions) place(&region);
  return {};
}

void PrintBootstrap(const pdpb::BootstrapRequest& request, bool already_bootstrapped) {
  std::printf("%s\nstore %" PRIu64 " at %s\n",
              already_bootstrapped
                  ? "the cluster existed already: only the store was registered"
                  : "the cluster is new: the store and the regions were registered",
              request.store.id, KeyCell(request.store.address).c_str());
  if (already_bootstrapped) return;
  const auto print_region = [](const pdpb::Region& region) {
    std::printf("region %" PRIu64 " from %s to %s\n", region.id, KeyCell(region.start_key).c_str(),
                KeyCell(region.end_key).c_str());
    for (const pdpb::Peer& peer : region.peers) {
      std::printf("  peer %" PRIu64 " on store %" PRIu64 ", %s\n", peer.id, peer.store_id,
                  EnumText(peer.role).c_str());
    }
  };
  print_region(request.region);
  for (const pdpb::Region& region : request.extra_regions) print_region(region);
}

int RunBootstrap(const Context& context, bool from_stdin, pdpb::BootstrapRequest request) {
  const auto take = [&](const Json& json) {
    request = {};
    FromJson(json, "request", &request);
  };
  if (from_stdin && !ReadJson(take)) return kExitUsage;
  if (!from_stdin && request.region.peers.empty()) request.region.peers.emplace_back();
  Context once = context;
  // A second attempt, after a lost answer, would report the cluster that the first one created as
  // an existing one.
  once.client_options.attempts = 1;
  Connection connection(once);
  pdpb::BootstrapResponse answer;
  if (Status s = FillIds(&connection.pd, &request); !s.ok()) return FailCall(context, s);
  if (Status s = connection.pd.Bootstrap(request, &answer); !s.ok()) return FailCall(context, s);
  if (context.json) {
    Json json = ToJson(answer);
    json["store"] = ToJson(request.store);
    if (!answer.already_bootstrapped) {
      json["region"] = ToJson(request.region);
      json["extra_regions"] = ToJson(request.extra_regions);
    }
    PrintJson(json);
  } else {
    PrintBootstrap(request, answer.already_bootstrapped);
  }
  return kExitYes;
}

}  // namespace

void AddBootstrapCommand(CLI::App* app, Context* context) {
  struct Arguments {
    bool from_stdin = false;
    pdpb::BootstrapRequest request;
  };
  auto arguments = std::make_shared<Arguments>();
  pdpb::BootstrapRequest* request = &arguments->request;
  CLI::App* command = app->add_subcommand(
      "bootstrap",
      "Creates the cluster with a first store and region, or registers a store.\n"
      "If the cluster exists already, the store is registered, or its address replaced, and the\n"
      "regions are ignored: this is how further stores are added. Identifiers left out or 0 are\n"
      "taken from the server; a peer on store 0 is put on the store that is registered.");
  AddIdOption(command, "--store-id", &request->store.id, "the store");
  const CLI::Option* address = command->add_option("--store-address", request->store.address,
                                                   "where the store serves, HOST:PORT");
  AddIdOption(command, "--region-id", &request->region.id, "the first region");
  AddRegionOptions(command, &request->region);
  command->add_flag(
      "--stdin", arguments->from_stdin,
      "read the whole request as JSON from standard input: an object with store, region "
      "and extra_regions");
  command->footer("Without --peer the region has one voter, on the store.");
  command->callback([=] {
    CheckStdinOr(*address, *command, arguments->from_stdin);
    context->run = [=] { return RunBootstrap(*context, arguments->from_stdin, *request); };
  });
}

}  // namespace kandb::ctl
