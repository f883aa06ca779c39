// A round: stores fail and return, regions split and merge, heartbeats are sent, commands are
// carried out. Each step ends before the next begins.

#include <algorithm>
#include <thread>
#include <utility>

#include "kandb_sim/simulation.h"

namespace kandb::sim {

using client::PdClient;

Status Simulation::RunRound(Phase* phase, bool disturbed) {
  const SteadyClock::time_point deadline =
      SteadyClock::now() + std::chrono::milliseconds(options.interval_ms);
  cluster->BeginRound();
  if (Status s = ChangeStores(disturbed); !s.ok()) return s;
  if (disturbed) {
    if (Status s = ChangeRanges(); !s.ok()) return s;
  }
  if (Status s = SendChanges(); !s.ok()) return s;
  if (Status s = SendHeartbeats(); !s.ok()) return s;
  if (Status s = SendChanges(); !s.ok()) return s;
  if (Status s = CheckServer(); !s.ok()) return s;
  ids.clear();  // unused ones are dropped
  ShowProgress(0, 0);
  if (SteadyClock::now() > deadline) ++phase->late_rounds;
  std::this_thread::sleep_until(deadline);
  return {};
}

Status Simulation::ChangeStores(bool disturbed) {
  std::vector<std::size_t> changed;
  cluster->ReturnStores(&changed);
  if (disturbed) {
    // Evenly spread over the disturbed rounds, the first one in the first round.
    const std::uint64_t rounds = options.disturbed_rounds;
    for (std::uint32_t i = 0; i < options.failures; ++i) {
      if (i * rounds / options.failures == seen.disturbed.rounds) {
        cluster->FailOne(&random, &changed);
      }
    }
  }
  if (changed.empty()) return {};
  cluster->ElectLeaders(&random);
  return RegisterStores(changed);
}

Status Simulation::ChangeRanges() {
  if (Status s = GetIds(options.splits_per_round * Cluster::IdsPerRegion(options)); !s.ok()) {
    return s;
  }
  for (std::uint32_t i = 0; i < options.splits_per_round; ++i) cluster->SplitOne(&random, &ids);
  for (std::uint32_t i = 0; i < options.merges_per_round; ++i) cluster->MergeTwo(&random);
  return {};
}

Status Simulation::SendHeartbeats() {
  const std::vector<pdpb::RegionHeartbeatRequest> reports = cluster->Heartbeats();
  std::vector<pdpb::RegionHeartbeatResponse> answers(reports.size());
  for (std::size_t i = 0; i < reports.size(); ++i) {
    if (!cluster->all_stores()[i].up) continue;
    callers.Add(i, [&, i](Session* session) {
      return session->Call(&PdClient::RegionHeartbeat, reports[i], &answers[i]);
    });
    ++seen.heartbeats;
    seen.entries += reports[i].regions.size();
    seen.replica_ids += reports[i].region_ids.size();
  }
  const SteadyClock::time_point start = SteadyClock::now();
  if (Status s = callers.RunAll(); !s.ok()) return s;
  seen.heartbeat_seconds += std::chrono::duration<double>(SteadyClock::now() - start).count();
  return CarryOut(reports, answers);
}

Status Simulation::CarryOut(const std::vector<pdpb::RegionHeartbeatRequest>& reports,
                            const std::vector<pdpb::RegionHeartbeatResponse>& answers) {
  std::size_t added_peers = 0;
  for (std::size_t i = 0; i < reports.size(); ++i) {
    if (Status s = CheckCommands(*cluster, reports[i], answers[i].commands); !s.ok()) return s;
    for (const pdpb::ScheduleCommand& command : answers[i].commands) {
      ++seen.commands_given[static_cast<std::size_t>(command.kind)];
      added_peers += command.kind == pdpb::ScheduleKind::kAddPeer ? 1 : 0;
    }
  }
  if (Status s = GetIds(added_peers); !s.ok()) return s;
  for (std::size_t i = 0; i < reports.size(); ++i) {
    std::uint32_t transfers = 0;
    for (const pdpb::ScheduleCommand& command : answers[i].commands) {
      const bool transfer = command.kind == pdpb::ScheduleKind::kTransferLeader;
      if (transfer && transfers == options.transfers_per_round) continue;
      const std::uint64_t peer_id = command.kind == pdpb::ScheduleKind::kAddPeer ? TakeId(&ids) : 0;
      if (!cluster->CarryOut(command, reports[i].store_id, peer_id)) continue;
      ++seen.commands_done[static_cast<std::size_t>(command.kind)];
      transfers += transfer ? 1 : 0;
    }
  }
  return {};
}

Status Simulation::SendChanges() {
  const std::map<std::size_t, pdpb::UpsertRegionRequest> requests = cluster->TakeChanges();
  if (requests.empty()) return {};
  for (const auto& entry : requests) {
    callers.Add(entry.first, [&request = entry.second](Session* session) {
      pdpb::UpsertRegionResponse answer;
      return session->Call(&PdClient::UpsertRegion, request, &answer);
    });
  }
  for (std::uint32_t i = 0; i < options.lookups_per_round; ++i) AddLookup(false);
  return callers.RunAll();
}

Status Simulation::RegisterStores(const std::vector<std::size_t>& numbers) {
  for (const std::size_t number : numbers) {
    callers.Add(number, [this, number](Session* session) -> Status {
      pdpb::BootstrapRequest request;
      request.store = cluster->all_stores()[number].record;
      pdpb::BootstrapResponse answer;
      if (Status s = session->Call(&PdClient::Bootstrap, request, &answer); !s.ok()) return s;
      if (answer.already_bootstrapped) return {};
      return Status::Corruption("a store was registered, and the server took it for the first");
    });
  }
  return callers.RunAll();
}

// Calls from several stores at once.
Status Simulation::GetIds(std::size_t wanted) {
  constexpr std::size_t kCalls = 8;
  if (ids.size() >= wanted) return {};
  const std::size_t missing = wanted - ids.size();
  const pdpb::AllocIdRequest request = {static_cast<std::uint32_t>(missing / kCalls + 1)};
  std::vector<pdpb::AllocIdResponse> answers(std::min(kCalls, missing));
  for (pdpb::AllocIdResponse& answer : answers) {
    callers.Add(RandomUpStore(), [request, &answer](Session* session) {
      return session->Call(&PdClient::AllocId, request, &answer);
    });
  }
  if (Status s = callers.RunAll(); !s.ok()) return s;
  for (const pdpb::AllocIdResponse& answer : answers) {
    if (answer.count != request.count) return Status::Corruption("not as many ids as wanted");
    if (Status s = AddDisjoint("ids", answer.first_id, answer.count, &all_ids); !s.ok()) return s;
    seen.ids += answer.count;
    for (std::uint64_t i = 0; i < answer.count; ++i) ids.push_back(answer.first_id + i);
  }
  std::ranges::sort(ids);  // independent of the order of the answers
  return {};
}

std::size_t Simulation::RandomUpStore() {
  if (!cluster) return Below(options.store_count, &random);
  for (;;) {
    const std::size_t number = Below(options.store_count, &random);
    if (cluster->all_stores()[number].up) return number;
  }
}

}  // namespace kandb::sim
