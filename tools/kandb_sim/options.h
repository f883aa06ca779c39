// The parameters of a run. A round is one heartbeat of every store.
#pragma once

#include <cstdint>
#include <string>

namespace kandb::sim {

struct Options {
  // One of the two:
  std::string server;         // HOST:PORT of a server without a cluster
  std::string server_binary;  // the program to start, on a state directory of its own

  std::uint32_t target_replicas = 3;  // what the server aims for
  std::uint32_t store_count = 5;
  std::uint32_t region_count = 50;
  std::uint32_t interval_ms = 100;  // least time from the start of a round to the next

  // The disturbed rounds, and what happens in them.
  std::uint32_t disturbed_rounds = 20;
  std::uint32_t splits_per_round = 5;
  std::uint32_t merges_per_round = 5;
  std::uint32_t failures = 2;     // stores that fail, in all
  std::uint32_t down_rounds = 5;  // until a failed store returns

  std::uint32_t catch_up_rounds = 2;       // until a new learner has caught up
  std::uint32_t transfers_per_round = 10;  // most leaderships that a store transfers
  std::uint32_t quiet_rounds = 300;        // most rounds until every region is complete

  std::uint32_t lookups_per_round = 20;
  std::uint32_t walk_limit = 10000;  // most regions that the walk looks up
  std::uint32_t measure_ms = 500;    // for each kind of heartbeat whose cost is measured
  std::uint32_t reconnect_ms = 0;    // from its start a call without an answer is tried again
  std::uint32_t connection_count = 64;
  std::uint32_t thread_count = 4;
  std::uint64_t seed = 1;
};

}  // namespace kandb::sim
