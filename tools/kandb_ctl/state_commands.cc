// The commands for the state directory of a stopped server: summary, dump, verify.

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>

#include "kandb_ctl/command.h"
#include "kandb_ctl/options.h"
#include "kandb_ctl/row_writer.h"
#include "kandb_ctl/state_directory.h"
#include "kandb_ctl/state_summary.h"
#include "kandb_ctl/verify_directory.h"
#include "lsm/recovery.h"
#include "tools/common/exit_status.h"
#include "tools/common/progress_bar.h"

namespace kandb::ctl {

namespace {

int PrintSummary(const std::string& dir, const store::StoreCrypto& crypto, bool json) {
  const Json summary = SummarizeDirectory(dir, crypto);
  if (json) {
    PrintJson(summary);
  } else {
    PrintForPeople(summary);
  }
  const Json& failure = summary["next_start"]["fails"];
  return failure.is_null() ? kExitOk : Fail(Status::Corruption(failure));
}

int DumpRecords(const std::string& dir, const store::StoreCrypto& crypto, bool json) {
  lsm::ReadView view;
  if (Status s = lsm::LoadReadOnly(dir, &view); !s.ok()) return Fail(s);
  const RowWriter writer({{"key", 20}, {"kind", 12}, {"record", 0}}, json);
  int exit_status = kExitOk;
  const auto write = [&](std::string_view key, std::string_view stored) {
    Json row = Json::object();
    AddPair(key, stored, crypto, &row);
    writer.Write(row);
    if (row.contains("error")) {
      exit_status = Fail(Status::Corruption(KeyText(key) + ": " + row["error"].get<std::string>()));
    }
    return true;
  };
  if (Status s = ForEachRecord(view, write); !s.ok()) return Fail(s);
  return exit_status;
}

int Verify(const std::string& dir, const store::StoreCrypto& crypto, bool json) {
  const auto start = std::chrono::steady_clock::now();
  Verified verified;
  {
    tools::ProgressBar bar;
    verified = VerifyDirectory(dir, crypto, [&](double share) { bar.Show(share); });
  }
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  for (const auto& [where, text] : verified.findings) {
    if (json) {
      PrintJson({{"where", where}, {"text", text}});
    } else {
      std::printf("%s: %s\n", where.c_str(), text.c_str());
    }
  }
  if (!verified.findings.empty()) return tools::kExitNo;
  if (json) {
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

void AddStateCommands(CLI::App* app, Context* context) {
  struct Arguments {
    std::string dir;
    std::string passphrase_file;
  };
  using Action = int (*)(const std::string&, const store::StoreCrypto&, bool);

  CLI::App* state = app->add_subcommand("state", "Reads the state directory of a stopped server.");
  state->require_subcommand(1);
  const auto add = [&](const char* name, const char* description, Action action) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = state->add_subcommand(name, description);
    command->add_option("DIR", arguments->dir, "the state directory")
        ->required()
        ->check(CLI::ExistingDirectory);
    AddPassphraseOption(command, &arguments->passphrase_file);
    command->callback([arguments, context, action] {
      context->run = [arguments, context, action] {
        if (Status s = RefuseRunningServer(arguments->dir); !s.ok()) return FailToRead(s);
        if (Status s = RequireState(arguments->dir); !s.ok()) return Fail(s);
        store::StoreCrypto crypto;
        if (Status s = ReadPassphraseFile(arguments->passphrase_file, &crypto); !s.ok()) {
          return Fail(s);
        }
        return action(arguments->dir, crypto, context->json);
      };
    });
    return command;
  };
  add("summary", "Shows the contents of the directory in numbers, and what the next start will do.",
      PrintSummary);
  add("dump", "Prints every live record in key order.", DumpRecords);
  add("verify", "Checks every file and record; exit status 1 when something is wrong.", Verify)
      ->footer(kVerifyHelp);
}

}  // namespace kandb::ctl
