// kandb-ctl backup, restore, salvage.

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>

#include "kandb_ctl/backup.h"
#include "kandb_ctl/command.h"
#include "kandb_ctl/options.h"
#include "kandb_ctl/salvage.h"
#include "kandb_ctl/state_directory.h"
#include "pdpb/timestamp.h"
#include "tools/common/exit_status.h"
#include "tools/common/progress_bar.h"
#include "tools/common/utc_text.h"

namespace kandb::ctl {

namespace {

struct BackupArguments {
  std::string from;
  std::string to;
  BackupOptions backup;
  bool no_verify = false;
  std::uint64_t skip_ids = 1000000;
  std::string passphrase_file;
};

int RunBackup(const BackupArguments& arguments, const store::StoreCrypto& crypto, bool json) {
  if (Status s = RequireState(arguments.from); !s.ok()) return Fail(s);
  BackupOptions options = arguments.backup;
  options.verify = !arguments.no_verify;
  Json contents;
  std::vector<Finding> findings;
  Status status;
  {
    tools::ProgressBar bar;
    status = BackUp(
        arguments.from, arguments.to, options, crypto, [&](double share) { bar.Show(share); },
        &contents, &findings);
  }
  if (!status.ok()) return FailToRead(status);
  for (const auto& [where, text] : findings) {
    std::fprintf(stderr, "kandb-ctl: %s: %s\n", where.c_str(), text.c_str());
  }
  if (json) {
    PrintJson(contents);
  } else {
    const Json& mark = contents["id_mark"];
    std::printf("%s: the state at %s, %zu tables, %zu WALs, %s\n", arguments.to.c_str(),
                contents["made_at"].get<std::string>().c_str(), contents["tables"].size(),
                contents["wals"].size(),
                mark.is_null() ? "no id mark" : ("next id " + mark.dump()).c_str());
    for (const Json& wal : contents["wals"]) {
      if (wal["left_out"] == 0) continue;
      std::printf("%s: %s bytes of an unfinished record left out\n",
                  wal["name"].get<std::string>().c_str(), wal["left_out"].dump().c_str());
    }
    if (!options.verify) {
      std::printf("not verified\n");
    } else {
      std::printf("verified: %s records, %s stores, %s regions, %zu findings\n",
                  contents["records"].dump().c_str(), contents["stores"].dump().c_str(),
                  contents["regions"].dump().c_str(), findings.size());
    }
  }
  return findings.empty() ? tools::kExitYes : tools::kExitNo;
}

int RunRestore(const BackupArguments& arguments, const store::StoreCrypto& crypto, bool json) {
  Json result;
  Status status;
  {
    tools::ProgressBar bar;
    status = Restore(
        arguments.from, arguments.to, arguments.skip_ids, crypto,
        [&](double share) { bar.Show(share); }, &result);
  }
  if (!status.ok()) return Fail(status);
  const auto now = std::chrono::system_clock::now();
  const auto now_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  const std::uint64_t timestamp = pdpb::MakeTimestamp(static_cast<std::uint64_t>(now_ms), 0);
  const auto made_ms = result["made_at_unix_ms"].get<std::int64_t>();
  result["first_timestamp"] = timestamp;
  result["clock_is_behind"] = now_ms < made_ms;
  if (json) {
    PrintJson(result);
  } else {
    std::printf("%s: restored the state at %s\n", arguments.to.c_str(),
                result["made_at"].get<std::string>().c_str());
    std::printf("ids go on from %s\n", result["first_id"].dump().c_str());
    std::printf("timestamps go on from the clock: a start now begins with %" PRIu64 " (%s)\n",
                timestamp, tools::UtcText(now).c_str());
  }
  if (now_ms < made_ms) {
    std::fprintf(stderr,
                 "kandb-ctl: warning: the clock is %.1f s behind the backup: timestamps would be "
                 "handed out again\n",
                 static_cast<double>(made_ms - now_ms) / 1000);
  }
  return tools::kExitYes;
}

int RunSalvage(const BackupArguments& arguments, const store::StoreCrypto& crypto, bool json) {
  if (Status s = RefuseRunningServer(arguments.from); !s.ok()) return FailToRead(s);
  if (Status s = RequireState(arguments.from); !s.ok()) return Fail(s);
  Salvaged salvaged;
  if (Status s = Salvage(arguments.from, arguments.to, arguments.skip_ids, crypto, &salvaged);
      !s.ok()) {
    return FailToRead(s);
  }
  Json losses = Json::array();
  for (const Loss& loss : salvaged.losses) {
    losses.push_back({{"file", loss.file},
                      {"begin", loss.begin},
                      {"end", loss.end},
                      {"after_key", KeyText(loss.after_key)},
                      {"before_key", KeyText(loss.before_key)},
                      {"text", loss.text}});
    if (json) continue;
    std::printf("%s", loss.file.c_str());
    if (loss.end > 0) std::printf(" offset %" PRIu64 " to %" PRIu64, loss.begin, loss.end);
    std::printf(": %s", loss.text.c_str());
    if (!loss.after_key.empty() || !loss.before_key.empty()) {
      std::printf(" (keys %s to %s)", KeyCell(loss.after_key).c_str(),
                  KeyCell(loss.before_key).c_str());
    }
    std::printf("\n");
  }
  if (json) {
    PrintJson({{"records", salvaged.records}, {"first_id", salvaged.first_id}, {"losses", losses}});
  } else {
    std::printf("%s: %" PRIu64 " records; ids go on from %" PRIu64 "\n", arguments.to.c_str(),
                salvaged.records, salvaged.first_id);
  }
  return salvaged.losses.empty() ? tools::kExitYes : tools::kExitNo;
}

}  // namespace

void AddBackupCommands(CLI::App* app, Context* context) {
  using Run = int (*)(const BackupArguments&, const store::StoreCrypto&, bool);
  const auto add = [&](const char* name, const char* description, Run run,
                       const std::shared_ptr<BackupArguments>& arguments) {
    CLI::App* command = app->add_subcommand(name, description);
    AddPassphraseOption(command, &arguments->passphrase_file);
    command->callback([=] {
      context->run = [=] {
        store::StoreCrypto crypto;
        if (Status s = ReadPassphraseFile(arguments->passphrase_file, &crypto); !s.ok()) {
          return Fail(s);
        }
        return run(*arguments, crypto, context->json);
      };
    });
    return command;
  };
  auto arguments = std::make_shared<BackupArguments>();
  CLI::App* backup =
      add("backup",
          "Copies the state directory of a running or stopped server, as it is at one moment.",
          RunBackup, arguments);
  backup->add_option("DIR", arguments->from, "the state directory")
      ->required()
      ->check(CLI::ExistingDirectory);
  backup->add_option("--out", arguments->to, "directory to make")->required();
  backup->add_option("--since", arguments->backup.earlier,
                     "an earlier backup: tables that did not change are linked to it");
  backup->add_flag("--no-verify", arguments->no_verify, "do not read the copy again");
  backup->add_flag("--copy", arguments->backup.copy,
                   "copy tables even within a file system, where they are linked");

  arguments = std::make_shared<BackupArguments>();
  CLI::App* restore = add("restore", "Copies a backup to an empty state directory, and skips ids.",
                          RunRestore, arguments);
  restore->add_option("BACKUP", arguments->from, "the backup")
      ->required()
      ->check(CLI::ExistingDirectory);
  restore->add_option("DIR", arguments->to, "the state directory; empty, or it is made")
      ->required();
  AddIdOption(restore, "--skip-ids", &arguments->skip_ids,
              "ids to skip: those handed out since the backup; 1000000 without it")
      ->type_name("N");

  arguments = std::make_shared<BackupArguments>();
  CLI::App* salvage = add(
      "salvage", "Makes a new state directory of what can be read of a damaged one, and skips ids.",
      RunSalvage, arguments);
  salvage->add_option("DIR", arguments->from, "the damaged state directory, which does not change")
      ->required()
      ->check(CLI::ExistingDirectory);
  salvage->add_option("--out", arguments->to, "directory to make")->required();
  AddIdOption(salvage, "--skip-ids", &arguments->skip_ids, "as for restore")->type_name("N");
}

}  // namespace kandb::ctl
