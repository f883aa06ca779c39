#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <thread>

#include "kandb_ctl/bootstrap_command.h"
#include "kandb_ctl/command.h"
#include "kandb_ctl/connection.h"
#include "kandb_ctl/interrupt.h"
#include "kandb_ctl/json_input.h"
#include "kandb_ctl/row_writer.h"
#include "pdpb/timestamp.h"
#include "tools/common/text_table.h"
#include "tools/common/utc_text.h"

namespace kandb::ctl {

namespace {

// --- tso ---

int RunTso(const Context& context, std::uint32_t count) {
  Connection connection(context);
  pdpb::TsoResponse answer;
  if (Status s = connection.pd.Tso({count}, &answer); !s.ok()) return FailCall(context, s);
  Json row = ToJson(answer);
  row["physical"] = tools::UtcText(pdpb::PhysicalMs(answer.timestamp));
  row["logical"] = pdpb::Logical(answer.timestamp);
  PrintRow(row, context.json);
  return kExitYes;
}

void AddTso(CLI::App* app, Context* context) {
  auto count = std::make_shared<std::uint32_t>(1);
  CLI::App* command = app->add_subcommand("tso", "Takes timestamps and shows the first of them");
  command->add_option("--count", *count, "how many consecutive ones")
      ->check(CLI::Range(std::uint32_t{1}, pdpb::kMaxLogical))
      ->capture_default_str();
  command->callback([=] { context->run = [=] { return RunTso(*context, *count); }; });
}

// --- alloc-id ---

int RunAllocId(const Context& context, std::uint32_t count) {
  Connection connection(context);
  pdpb::AllocIdResponse answer;
  if (Status s = connection.pd.AllocId({count}, &answer); !s.ok()) return FailCall(context, s);
  PrintRow({{"first_id", answer.first_id},
            {"last_id", answer.first_id + answer.count - 1},
            {"count", answer.count}},
           context.json);
  return kExitYes;
}

void AddAllocId(CLI::App* app, Context* context) {
  auto count = std::make_shared<std::uint32_t>(1);
  CLI::App* command = app->add_subcommand(
      "alloc-id", "Takes identifiers, which the server then never hands out again");
  command->add_option("--count", *count, "how many consecutive ones")
      ->check(CLI::Range(std::uint32_t{1}, std::uint32_t{0xffffffff}))
      ->capture_default_str();
  command->callback([=] { context->run = [=] { return RunAllocId(*context, *count); }; });
}

// --- heartbeat ---

int RunHeartbeat(const Context& context) {
  pdpb::RegionHeartbeatRequest request;
  if (!ReadJson([&](const Json& json) { FromJson(json, "request", &request); })) return kExitUsage;
  Connection connection(context);
  pdpb::RegionHeartbeatResponse answer;
  if (Status s = connection.pd.RegionHeartbeat(request, &answer); !s.ok())
    return FailCall(context, s);
  if (context.json) {
    PrintJson(ToJson(answer));
    return kExitYes;
  }
  tools::TextTable table({"command", "region", "store", "address"});
  for (const pdpb::ScheduleCommand& command : answer.commands) {
    table.AddRow({EnumText(command.kind), std::to_string(command.region_id),
                  std::to_string(command.store_id), KeyText(command.address)});
  }
  table.Print();
  return kExitYes;
}

void AddHeartbeat(CLI::App* app, Context* context) {
  CLI::App* command = app->add_subcommand(
      "heartbeat",
      "Sends a heartbeat, JSON from standard input, and shows the commands for the store.\n"
      "The server treats it as the store's own and balances leadership by it until the next one.");
  command->footer(
      "The JSON is an object with store_id, regions and region_ids; a region has region_id,\n"
      "member_store_ids, caught_up_learner_store_ids and candidate_store_ids.");
  command->callback([=] { context->run = [=] { return RunHeartbeat(*context); }; });
}

// --- ping ---

using MicrosecondsF = std::chrono::duration<double, std::micro>;

int RunPing(const Context& context, std::uint32_t count, std::uint32_t interval_ms) {
  Context once = context;
  once.client_options.attempts = 1;  // a call that is tried again makes more than one round trip
  Connection connection(once);
  pdpb::TsoResponse answer;
  // Connects; the measurement begins after it.
  if (Status s = connection.pd.Tso({1}, &answer); !s.ok()) return FailCall(context, s);
  std::vector<double> round_trips_us;
  CatchInterrupts();
  for (std::uint32_t i = 1; i <= count && !(Interrupted() && i > 1); ++i) {
    const auto start = std::chrono::steady_clock::now();
    if (Status s = connection.pd.Tso({1}, &answer); !s.ok()) return FailCall(context, s);
    round_trips_us.push_back(MicrosecondsF(std::chrono::steady_clock::now() - start).count());
    if (!context.json) {
      std::printf("%" PRIu32 ": %.1f us\n", i, round_trips_us.back());
      (void)std::fflush(stdout);
    }
    // In steps: the library's own sleep goes on after a signal.
    const auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(interval_ms);
    while (i < count && !Interrupted() && std::chrono::steady_clock::now() < next) {
      std::this_thread::sleep_until(
          std::min(next, std::chrono::steady_clock::now() + std::chrono::milliseconds(50)));
    }
  }
  std::vector<double> sorted = round_trips_us;
  std::sort(sorted.begin(), sorted.end());
  const double median_us = (sorted[(sorted.size() - 1) / 2] + sorted[sorted.size() / 2]) / 2;
  if (context.json) {
    PrintJson({{"round_trips_us", round_trips_us},
               {"min_us", sorted.front()},
               {"median_us", median_us},
               {"max_us", sorted.back()}});
  } else {
    std::printf("min/median/max: %.1f/%.1f/%.1f us\n", sorted.front(), median_us, sorted.back());
  }
  return kExitYes;
}

void AddPing(CLI::App* app, Context* context) {
  struct Arguments {
    std::uint32_t count = 5;
    std::uint32_t interval_ms = 200;
  };
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app->add_subcommand(
      "ping",
      "Measures round trips to the server, a timestamp each; Ctrl-C ends it with what it has");
  command->add_option("--count", arguments->count, "how many")
      ->check(CLI::Range(std::uint32_t{1}, std::uint32_t{1000000}))
      ->capture_default_str();
  command->add_option("--interval-ms", arguments->interval_ms, "pause between them")
      ->capture_default_str();
  command->callback([=] {
    context->run = [=] { return RunPing(*context, arguments->count, arguments->interval_ms); };
  });
}

}  // namespace

void AddClusterCommands(CLI::App* app, Context* context) {
  AddTso(app, context);
  AddAllocId(app, context);
  AddBootstrapCommand(app, context);
  AddHeartbeat(app, context);
  AddPing(app, context);
}

}  // namespace kandb::ctl
