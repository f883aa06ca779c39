// Manifests: records are at their offsets, the bytes before the damage are sound, and the records
// written out again are read as the same.

#include "lsm/manifest.h"
#include "target.h"

namespace kandb::fuzz {

struct Manifest {
  std::string rewritten;
  std::optional<std::uint64_t> damage_offset;
  bool operator==(const Manifest&) const = default;
};

static Manifest Read(std::string_view text) {
  const MemoryFile file(text);
  Manifest manifest;
  const auto rewrite = [&](const lsm::ManifestRecord& record) {
    Claim(record.offset < text.size() && text.substr(record.offset).starts_with(record.word));
    manifest.rewritten.append(record.word) += ' ' + std::to_string(record.number) + '\n';
  };
  bool exists = false;
  Claim(lsm::ForEachManifestRecord(file.path(), rewrite, &exists, &manifest.damage_offset).ok());
  Claim(exists);
  return manifest;
}

void TryInput(std::string_view input) {
  const auto [rewritten, damage_offset] = Read(input);
  const Manifest sound = {rewritten, {}};
  Claim(Read(input.substr(0, damage_offset.value_or(input.size()))) == sound);
  // A zero byte is part of a word in the file, but its end for a visitor.
  if (input.find('\0') == input.npos) Claim(Read(rewritten) == sound);
}

}  // namespace kandb::fuzz
