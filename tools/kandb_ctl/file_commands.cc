// The commands for one file of a state directory: wal, table, manifest.

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "kandb_ctl/command.h"
#include "kandb_ctl/options.h"
#include "kandb_ctl/row_writer.h"
#include "kandb_ctl/state_directory.h"
#include "lsm/manifest.h"
#include "lsm/sst_reader.h"
#include "lsm/wal.h"

namespace kandb::ctl {

namespace {

struct FileArguments {
  std::string path;
  std::string passphrase_file;
};

int FailAt(const std::string& path, std::uint64_t offset, const std::string& text) {
  return Fail(Status::Corruption(path + " offset " + std::to_string(offset) + ": " + text));
}

// The rows of a WAL or a table, and whether all of them decoded.
class EntryRows {
 public:
  EntryRows(const FileArguments& arguments, const store::StoreCrypto& store_crypto, bool json)
      : path(arguments.path),
        crypto(store_crypto),
        writer({{"offset", 10}, {"op", 6}, {"key", 20}, {"kind", 12}, {"record", 0}}, json) {}

  void Write(std::uint64_t offset, const lsm::EntryView& entry) {
    Json row = {{"offset", offset}};
    if (entry.op == lsm::kPut) {
      row["op"] = "put";
      AddPair(entry.key, entry.value, crypto, &row);
      if (row.contains("error")) exit_status = FailAt(path, offset, row["error"]);
    } else {
      row["op"] = "delete";
      row["key"] = KeyText(entry.key);
    }
    writer.Write(row);
  }

  void WriteEmptyBatch(std::uint64_t offset) { writer.Write({{"offset", offset}, {"op", "none"}}); }

  int ExitStatus() const { return exit_status; }

 private:
  const std::string& path;
  const store::StoreCrypto& crypto;
  const RowWriter writer;
  int exit_status = kExitYes;
};

int PrintLog(const FileArguments& arguments, bool json) {
  store::StoreCrypto crypto;
  if (Status s = ReadPassphraseFile(arguments.passphrase_file, &crypto); !s.ok()) return Fail(s);
  lsm::LogReader reader;
  bool exists = false;
  if (Status s = reader.Open(arguments.path, &exists); !s.ok()) return Fail(s);

  EntryRows rows(arguments, crypto, json);
  std::vector<lsm::EntryView> batch;
  std::uint64_t start = 0;
  while (reader.Next(&batch)) {
    const std::uint64_t offset = std::exchange(start, reader.offset());
    if (batch.empty()) rows.WriteEmptyBatch(offset);
    for (const lsm::EntryView& entry : batch) rows.Write(offset, entry);
  }
  if (!reader.damage().ok()) return FailAt(arguments.path, start, reader.damage().message());
  return rows.ExitStatus();
}

int PrintTable(const FileArguments& arguments, bool json) {
  store::StoreCrypto crypto;
  if (Status s = ReadPassphraseFile(arguments.passphrase_file, &crypto); !s.ok()) return Fail(s);
  std::shared_ptr<lsm::SstReader> table;
  std::optional<std::uint64_t> damage_offset;
  if (Status s = OpenTable(arguments.path, &table, &damage_offset); !s.ok()) {
    return damage_offset ? FailAt(arguments.path, *damage_offset, s.message()) : Fail(s);
  }

  EntryRows rows(arguments, crypto, json);
  lsm::SstReader::Iterator iterator(table.get(), lsm::SstReader::Iterator::kMaxReadSize);
  for (iterator.Seek(""); iterator.valid(); iterator.Next()) {
    rows.Write(iterator.offset(), iterator.entry());
  }
  if (!iterator.status().ok()) {
    return FailAt(arguments.path, iterator.offset(), iterator.status().message());
  }
  return rows.ExitStatus();
}

int PrintManifest(const FileArguments& arguments, bool json) {
  const RowWriter writer({{"offset", 10}, {"word", 10}, {"number", 0}}, json);
  const auto write = [&](const lsm::ManifestRecord& record) {
    writer.Write(
        {{"offset", record.offset}, {"word", KeyText(record.word)}, {"number", record.number}});
  };
  bool exists = false;
  std::optional<std::uint64_t> damage_offset;
  if (Status s = lsm::ForEachManifestRecord(arguments.path, write, &exists, &damage_offset);
      !s.ok()) {
    return Fail(s);
  }
  if (damage_offset) {
    return FailAt(arguments.path, *damage_offset, "no record; the rest is not read");
  }
  return kExitYes;
}

}  // namespace

void AddFileCommands(CLI::App* app, Context* context) {
  const auto add = [&](const char* name, const char* description, auto print) {
    const auto arguments = std::make_shared<FileArguments>();
    CLI::App* command = app->add_subcommand(name, description);
    command->add_option("FILE", arguments->path, "the file")->required()->check(CLI::ExistingFile);
    if (print != PrintManifest) AddPassphraseOption(command, &arguments->passphrase_file);
    command->callback([arguments, context, print] {
      context->run = [arguments, context, print] { return print(*arguments, context->json); };
    });
  };
  add("wal", "Prints the entries of a WAL, each with the offset of its record.", PrintLog);
  add("table", "Prints the entries of a table, each with its offset.", PrintTable);
  add("manifest", "Prints the records of a manifest.", PrintManifest);
}

}  // namespace kandb::ctl
