// Logs: a replay ends at the end of the file or at damage, and the bytes before that are a sound
// WAL of the same batches.

#include "crypto/crc32c.h"
#include "lsm/wal.h"
#include "target.h"

namespace kandb::fuzz {

using namespace lsm;
// The batches as the writer writes them, where they end in the WAL, and whether it is sound there.
using Replay = std::tuple<std::string, std::uint64_t, bool>;

static Replay ReadLog(std::string_view bytes) {
  const MemoryFile file(bytes);
  LogReader reader;
  bool exists = false;
  Claim(reader.Open(file.path(), &exists).ok() && exists);
  std::string rebuilt;
  for (std::vector<EntryView> views; reader.Next(&views);) {
    std::vector<Entry> batch;
    for (const auto& [op, key, value] : views) {
      batch.push_back({op, std::string(key), std::string(value)});
    }
    rebuilt += BuildLogRecord(batch);
  }
  return {rebuilt, reader.offset(), reader.damage().ok()};
}

// False when the WAL has not one record.
static bool TryLog(std::string_view log) {
  const auto [rebuilt, end, sound] = ReadLog(log);
  Claim(end <= log.size() && sound == (end == log.size()));
  const std::string_view front = log.substr(0, end);
  // Only bytes after the last entry of a batch are not written again.
  Claim(rebuilt == front ||
        (rebuilt.size() < end && ReadLog(rebuilt) == Replay{rebuilt, rebuilt.size(), true}));
  Claim(end == 0 || sound || ReadLog(front) == Replay{rebuilt, end, true});
  return end > 0;
}

// As a WAL, or as the payload of records: hardly any change of those leaves a checksum right.
void TryInput(std::string_view input) {
  if (TryLog(input)) return;
  std::string record;
  AppendU32(crypto::Crc32c(input), &record);
  AppendU32(static_cast<std::uint32_t>(input.size()), &record);
  record += input;
  TryLog(record + record + std::string(input));
}

}  // namespace kandb::fuzz
