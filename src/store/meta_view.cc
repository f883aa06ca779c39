#include "store/meta_view.h"

#include "lsm/read_view.h"
#include "store/value_envelope.h"

namespace kandb::store {

Status MetaView::Get(std::string_view key, std::string* value, bool* found) const {
  std::string stored;
  bool stored_found = false;
  if (Status s = lsm::GetLive(*view, key, &stored, &stored_found); !s.ok()) return s;
  if (stored_found) {
    if (Status s = OpenValue(*crypto, stored, value); !s.ok()) return s;
  }
  *found = stored_found;
  return {};
}

Status MetaView::ForEach(std::string_view start, std::string_view end, std::uint32_t limit,
                         const Visitor& visit, bool* of_one_moment) const {
  return OpenEach(visit, [&](const Visitor& visit_stored) {
    return lsm::ForEachLive(*view, start, end, limit, visit_stored, of_one_moment);
  });
}

Status MetaView::ForEachAtOnce(std::string_view start, std::string_view end, std::uint32_t limit,
                               const Visitor& visit) const {
  return OpenEach(visit, [&](const Visitor& visit_stored) {
    return lsm::ForEachLiveAtOnce(*view, start, end, limit, visit_stored);
  });
}

template <class Walk>
Status MetaView::OpenEach(const Visitor& visit, Walk walk) const {
  if (!crypto->encrypted) return walk(visit);

  std::string opened;
  Status open_status;
  const auto open_and_visit = [&](std::string_view key, std::string_view stored) {
    open_status = OpenValue(*crypto, stored, &opened);
    return open_status.ok() && visit(key, opened);
  };
  if (Status s = walk(open_and_visit); !s.ok()) return s;
  return open_status;
}

}  // namespace kandb::store
