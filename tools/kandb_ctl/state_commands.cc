// The commands for a state directory: summary, dump, verify.

#include "kandb_ctl/state_commands.h"

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>

#include "kandb_ctl/command.h"
#include "kandb_ctl/options.h"
#include "kandb_ctl/row_writer.h"
#include "kandb_ctl/state_capture.h"
#include "kandb_ctl/state_directory.h"
#include "kandb_ctl/state_summary.h"
#include "kandb_ctl/verify_directory.h"
#include "lsm/recovery.h"
#include "tools/common/exit_status.h"
#include "tools/common/progress_bar.h"

namespace kandb::ctl {

namespace {

int PrintSummary(const StateToRead& state) {
  Json summary = SummarizeDirectory(state.dir, state.crypto);
  if (!state.live_at.empty()) summary["read_live_at"] = state.live_at;
  if (state.json) {
    PrintJson(summary);
  } else {
    PrintForPeople(summary);
  }
  const Json& failure = summary["next_start"]["fails"];
  return failure.is_null() ? kExitYes : Fail(Status::Corruption(failure));
}

int DumpRecords(const StateToRead& state) {
  lsm::ReadView view;
  if (Status s = lsm::LoadReadOnly(state.dir, &view); !s.ok()) return Fail(s);
  const RowWriter writer({{"key", 20}, {"kind", 12}, {"record", 0}}, state.json);
  int exit_status = kExitYes;
  const auto write = [&](std::string_view key, std::string_view stored) {
    Json row = Json::object();
    AddPair(key, stored, state.crypto, &row);
    writer.Write(row);
    if (row.contains("error")) {
      exit_status = Fail(Status::Corruption(KeyText(key) + ": " + row["error"].get<std::string>()));
    }
    return true;
  };
  if (Status s = ForEachRecord(view, write); !s.ok()) return Fail(s);
  return exit_status;
}

int Verify(const StateToRead& state) {
  const auto start = std::chrono::steady_clock::now();
  Verified verified;
  {
    tools::ProgressBar bar;
    verified = VerifyDirectory(state.dir, state.crypto, [&](double share) { bar.Show(share); });
  }
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  for (const auto& [where, text] : verified.findings) {
    if (state.json) {
      PrintJson({{"where", where}, {"text", text}});
    } else {
      std::printf("%s: %s\n", where.c_str(), text.c_str());
    }
  }
  if (!verified.findings.empty()) return tools::kExitNo;
  if (state.json) {
    PrintJson({{"findings", 0},
               {"files", verified.files},
               {"records", verified.records},
               {"bytes", verified.bytes},
               {"seconds", seconds.count()}});
  } else {
    std::printf("nothing found: %" PRIu64 " files, %" PRIu64 " records, %" PRIu64
                " bytes, %.1f s\n",
                verified.files, verified.records, verified.bytes, seconds.count());
  }
  return tools::kExitYes;
}

constexpr const char* kVerifyHelp =
    R"(What is checked:
  directory  that it has a state, with at least one WAL: every start of a server leaves one
  manifest   every record, and that numbers are in range and tables named once
  WALs       checksum, length and entries of every record
  tables     footer, order of the keys, that the filter admits each key, that the index points at
             every 16th record with its key, that the footer counts right; no unnamed tables
  records    that all decode under their keys; regions without gaps, overlaps and empty ranges;
             peers on known stores, and one a store; stores with an address of their own; no id in
             use that the server would hand out again
Each finding is a line "where: text"; where is a file with an offset, or a key. Without findings
one line says how much was read.)";

}  // namespace

CLI::App* AddStateCommand(CLI::App* state, Context* context, const char* name,
                          const char* description,
                          const std::function<int(const StateToRead&)>& action) {
  struct Arguments {
    std::string dir;
    std::string passphrase_file;
    bool live = false;
  };
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* command = state->add_subcommand(name, description);
  command->add_option("DIR", arguments->dir, "the state directory")
      ->required()
      ->check(CLI::ExistingDirectory);
  AddLiveOption(command, &arguments->live);
  AddPassphraseOption(command, &arguments->passphrase_file);
  command->callback([arguments, context, action] {
    context->run = [arguments, context, action] {
      store::StoreCrypto crypto;
      if (Status s = ReadPassphraseFile(arguments->passphrase_file, &crypto); !s.ok()) {
        return Fail(s);
      }
      if (Status s = RequireState(arguments->dir); !s.ok()) return Fail(s);
      ReadableDirectory dir;
      if (Status s = dir.Open(arguments->dir, arguments->live); !s.ok()) return FailToRead(s);
      const int exit_status = action({dir.path(), dir.live_at(), crypto, context->json});
      if (arguments->live) {
        std::fprintf(stderr, "kandb-ctl: %s was read live at %s\n", arguments->dir.c_str(),
                     dir.live_at().c_str());
      }
      return exit_status;
    };
  });
  return command;
}

void AddStateCommands(CLI::App* app, Context* context) {
  CLI::App* state = app->add_subcommand(
      "state", "Reads the state directory of a server: a stopped one, or with --live any.");
  state->require_subcommand(1);
  const auto add = [&](const char* name, const char* description, auto action) {
    return AddStateCommand(state, context, name, description, action);
  };
  add("summary", "Shows the contents of the directory in numbers, and what the next start will do.",
      PrintSummary);
  add("dump", "Prints every live record in key order.", DumpRecords);
  add("verify", "Checks every file and record; exit status 1 when something is wrong.", Verify)
      ->footer(kVerifyHelp);
  AddStateListCommands(state, context);
}

}  // namespace kandb::ctl
