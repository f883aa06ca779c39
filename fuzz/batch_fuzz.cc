// Write batches: entries have the bytes that they were decoded from, those before damage too.

#include "lsm/write_batch.h"
#include "target.h"

namespace kandb::fuzz {

void TryInput(std::string_view input) {
  std::vector<lsm::EntryView> entries;
  const bool sound = lsm::DecodeBatch(input, &entries).ok();
  if (input.size() < 4) return Claim(!sound);
  std::string encoded;
  for (const lsm::EntryView& entry : entries) AppendEntry(entry, &encoded);
  Claim(input.substr(4).starts_with(encoded));
  Claim(sound == (entries.size() == LoadU32(input.data())));
}

}  // namespace kandb::fuzz
