#include "kandb_ctl/region_list.h"

#include <algorithm>
#include <tuple>

namespace kandb::ctl {

namespace {

constexpr std::size_t kChunkSize = std::size_t{1} << 20;

// Numbers are small mostly: seven bits a byte, the lowest first, the high bit says that more
// follow.
void AppendNumber(std::uint64_t number, std::string* out) {
  for (; number >= 0x80; number >>= 7) *out += static_cast<char>(number | 0x80);
  *out += static_cast<char>(number);
}

std::uint64_t TakeNumber(std::string_view* bytes) {
  std::uint64_t number = 0;
  for (unsigned shift = 0;; shift += 7) {
    const auto byte = static_cast<std::uint8_t>(bytes->front());
    bytes->remove_prefix(1);
    number |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    if (byte < 0x80) return number;
  }
}

std::string_view TakeBytes(std::string_view* bytes) {
  const std::size_t size = TakeNumber(bytes);
  const std::string_view taken = bytes->substr(0, size);
  bytes->remove_prefix(size);
  return taken;
}

RegionList::Range TakeRange(std::string_view* bytes) {
  RegionList::Range range;
  range.id = TakeNumber(bytes);
  range.start_key = TakeBytes(bytes);
  range.end_key = TakeBytes(bytes);
  return range;
}

void TakeRest(std::string_view* bytes, pdpb::Region* region) {
  region->epoch.conf_version = TakeNumber(bytes);
  region->epoch.version = TakeNumber(bytes);
  region->peers.resize(TakeNumber(bytes));
  for (pdpb::Peer& peer : region->peers) {
    peer.id = TakeNumber(bytes);
    peer.store_id = TakeNumber(bytes);
    peer.role = static_cast<pdpb::PeerRole>(TakeNumber(bytes));
  }
}

void Skip(std::string_view* bytes) {
  (void)TakeRange(bytes);
  TakeNumber(bytes);
  TakeNumber(bytes);
  for (std::uint64_t numbers = 3 * TakeNumber(bytes); numbers > 0; --numbers) TakeNumber(bytes);
}

}  // namespace

void RegionList::push_back(const pdpb::Region& region) {
  std::string bytes;
  AppendNumber(region.id, &bytes);
  for (const std::string* key : {&region.start_key, &region.end_key}) {
    AppendNumber(key->size(), &bytes);
    bytes += *key;
  }
  AppendNumber(region.epoch.conf_version, &bytes);
  AppendNumber(region.epoch.version, &bytes);
  AppendNumber(region.peers.size(), &bytes);
  for (const pdpb::Peer& peer : region.peers) {
    AppendNumber(peer.id, &bytes);
    AppendNumber(peer.store_id, &bytes);
    AppendNumber(static_cast<std::uint64_t>(peer.role), &bytes);
  }
  if (chunks.empty() || chunks.back().capacity() - chunks.back().size() < bytes.size()) {
    chunks.emplace_back().reserve(std::max(kChunkSize, bytes.size()));
  }
  chunks.back() += bytes;
  ++count;
}

RegionList::Iterator::Iterator(const std::deque<std::string>* list, std::size_t chunk_index)
    : chunks(list), chunk(chunk_index) {
  if (chunk < chunks->size()) rest = (*chunks)[chunk];
}

pdpb::Region RegionList::Iterator::operator*() const {
  std::string_view bytes = rest;
  const Range range = TakeRange(&bytes);
  pdpb::Region region{range.id, std::string(range.start_key), std::string(range.end_key), {}, {}};
  TakeRest(&bytes, &region);
  return region;
}

RegionList::Iterator& RegionList::Iterator::operator++() {
  Skip(&rest);
  if (rest.empty()) *this = Iterator(chunks, chunk + 1);
  return *this;
}

std::vector<RegionList::Range> RegionList::SortedRanges() const {
  std::vector<Range> ranges;
  ranges.reserve(count);
  for (Iterator at = begin(); at != end(); ++at) {
    std::string_view bytes = at.rest;
    ranges.push_back(TakeRange(&bytes));
    ranges.back().position = ranges.size() - 1;
  }
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) {
    return std::tie(a.start_key, a.id) < std::tie(b.start_key, b.id);
  });
  return ranges;
}

}  // namespace kandb::ctl
