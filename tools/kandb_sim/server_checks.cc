// Compares the server's answers with the reports of the stores.

#include <algorithm>
#include <utility>

#include "kandb_sim/key_space.h"
#include "kandb_sim/simulation.h"
#include "tools/common/remote_failure.h"

namespace kandb::sim {

using client::PdClient;
using tools::RemoteFailure;
using tools::RemoteFailureOf;

Status Simulation::CheckServer() {
  if (Status s = CheckModel(*cluster); !s.ok()) return s;
  for (std::uint32_t i = 0; i < options.lookups_per_round; ++i) AddLookup(true);
  if (Status s = callers.RunAll(); !s.ok()) return s;
  // Another server may answer now: all that was acknowledged must be there.
  const std::uint64_t interrupted = callers.interrupted_calls();
  if (std::exchange(walked_after, interrupted) != interrupted) {
    if (Status s = Walk(); !s.ok()) return s;
  }
  return CheckTimestamps();
}

// A lookup while regions change may find that no region covers the key; a client would ask again.
// At rest that is a failure.
void Simulation::AddLookup(bool at_rest) {
  ++(at_rest ? seen.lookups : seen.lookups_during_changes);
  callers.Add(RandomUpStore(), [this, at_rest, key = RandomKey()](Session* session) -> Status {
    pdpb::GetRegionResponse answer;
    Status status = session->Call(&PdClient::GetRegion, {key}, &answer);
    if (!at_rest && RemoteFailureOf(status) == RemoteFailure::kNoRegionCoversKey) {
      seen.missed_during_changes.fetch_add(1, std::memory_order_relaxed);  // only counted
      return {};
    }
    if (!status.ok()) return status;
    return CheckLookup(*cluster, key, answer, at_rest);
  });
}

// Of 0 to 16 bytes, or the start of a region.
std::string Simulation::RandomKey() {
  const std::string key = KeyAt(Below(kPositionEnd, &random));
  const std::uint64_t length = Below(32, &random);
  return length > 16 ? cluster->Covering(key).record.start_key : key.substr(0, length);
}

// Timestamps grow on every connection, no two ranges share one, and all exceed those of the round
// before.
Status Simulation::CheckTimestamps() {
  constexpr std::uint32_t kCallsPerThread = 5;
  constexpr std::uint64_t kMaxRun = 1000;
  using Answers = std::vector<pdpb::TsoResponse>;
  std::vector<Answers> taken(options.thread_count);
  for (Answers& answers : taken) {
    const auto count = static_cast<std::uint32_t>(1 + Below(kMaxRun, &random));
    callers.Add(RandomUpStore(), [count, &answers](Session* session) -> Status {
      for (std::uint32_t i = 0; i < kCallsPerThread; ++i) {
        pdpb::TsoResponse answer;
        if (Status s = session->Call(&PdClient::Tso, {count}, &answer); !s.ok()) return s;
        const bool grows =
            answers.empty() || answer.timestamp >= answers.back().timestamp + answers.back().count;
        if (!grows || answer.count != count) {
          return Status::Corruption("timestamp " + std::to_string(answer.timestamp) + ", count " +
                                    std::to_string(answer.count) + ": not above the last");
        }
        answers.push_back(answer);
      }
      return {};
    });
  }
  if (Status s = callers.RunAll(); !s.ok()) return s;
  tools::DisjointRanges ranges;
  for (const Answers& answers : taken) {
    for (const pdpb::TsoResponse& answer : answers) {
      if (answer.timestamp < timestamps_end) {
        return Status::Corruption("timestamp " + std::to_string(answer.timestamp) +
                                  " is not above those of the round before");
      }
      if (Status s = AddDisjoint("timestamps", answer.timestamp, answer.count, &ranges); !s.ok())
        return s;
      seen.timestamps += answer.count;
    }
  }
  timestamps_end = ranges.end();
  return {};
}

// Follows the end keys of the answers from region to region, several sections in parallel. Lookups
// are slow in a large key space: then only a part of it is walked, from a random region on.
Status Simulation::Walk() {
  std::vector<const pdpb::Region*> records;
  for (const auto& [start_key, region] : cluster->all_regions()) records.push_back(&region.record);
  const std::size_t count = std::min<std::size_t>(records.size(), options.walk_limit);
  const std::size_t first = Below(records.size() - count + 1, &random);
  const std::size_t section_count =
      std::min<std::size_t>(count, std::size_t{16} * options.thread_count);
  for (std::size_t i = 0; i < section_count; ++i) {
    const std::size_t begin = first + count * i / section_count;
    const std::size_t end = first + count * (i + 1) / section_count;
    callers.Add(i, [this, begin, end, start_key = records[begin]->start_key](Session* session) {
      std::string key = start_key;
      for (std::size_t n = begin; n < end; ++n) {
        pdpb::GetRegionResponse answer;
        if (Status s = session->Call(&PdClient::GetRegion, {key}, &answer); !s.ok()) return s;
        if (Status s = CheckLookup(*cluster, key, answer, true); !s.ok()) return s;
        key = std::move(answer.region.end_key);
      }
      return Status();
    });
  }
  seen.regions_walked = count;
  seen.lookups += count;
  return callers.RunAll();
}

}  // namespace kandb::sim
