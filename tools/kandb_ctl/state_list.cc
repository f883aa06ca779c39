// state regions, state stores: the records of a directory as lists, written while they are read.

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kandb_ctl/options.h"
#include "kandb_ctl/replica_count.h"
#include "kandb_ctl/row_writer.h"
#include "kandb_ctl/state_commands.h"
#include "kandb_ctl/state_directory.h"
#include "lsm/read_view.h"
#include "lsm/recovery.h"
#include "meta/keys.h"
#include "tools/common/exit_status.h"

namespace kandb::ctl {

namespace {

Json RowOf(const pdpb::Store& store) {
  return {{"id", store.id}, {"address", KeyText(store.address)}};
}

Json RowOf(const pdpb::Region& region) {
  std::string stores;
  for (const pdpb::Peer& peer : region.peers) {
    stores += (stores.empty() ? "" : ",") + std::to_string(peer.store_id);
    if (peer.role != pdpb::PeerRole::kVoter) stores += "(" + EnumText(peer.role) + ")";
  }
  return {{"id", region.id},
          {"epoch",
           std::to_string(region.epoch.conf_version) + "." + std::to_string(region.epoch.version)},
          {"stores", stores},
          {"start", KeyCell(region.start_key)},
          {"end", KeyCell(region.end_key)}};
}

// Which regions are listed; without a condition all.
struct RegionFilter {
  const CLI::Option* key_option = nullptr;  // owned by the parser
  std::string key;                          // covered by them, if the option is given
  std::vector<std::uint64_t> voters;        // how many they have
  std::vector<std::uint64_t> learners;      // likewise

  bool operator()(const pdpb::Region& region) const {
    const auto has = [](const std::vector<std::uint64_t>& wanted, std::size_t count) {
      return wanted.empty() || std::count(wanted.begin(), wanted.end(), count) > 0;
    };
    const bool covers = key_option->empty() || (region.start_key <= key &&
                                                (region.end_key.empty() || key < region.end_key));
    const ReplicaCount replicas = CountReplicas(region);
    return covers && has(voters, replicas.voters) && has(learners, replicas.learners);
  }
};

template <class Record>
class List {
 public:
  using Filter = std::function<bool(const Record&)>;

  List(const StateToRead& state_to_read, std::vector<RowWriter::Column> columns, Filter filter)
      : state(state_to_read),
        writer(std::move(columns), state.json),
        is_wanted(std::move(filter)) {}

  void Write(std::string_view key, std::string_view stored) {
    StoredRecord record;
    Status decoded = DecodeStored(key, stored, state.crypto, &record);
    if (!decoded.ok()) {
      exit_status = Fail(Status::Corruption(KeyText(key) + ": " + decoded.message()));
      return;
    }
    const auto& content = std::get<Record>(record.content);
    if (!is_wanted(content)) return;
    writer.Write(state.json ? ToJson(content) : RowOf(content));
  }

  int Run(const meta::KeyRange& range, const std::vector<std::uint64_t>& ids) {
    lsm::ReadView view;
    if (Status s = lsm::LoadReadOnly(state.dir, &view); !s.ok()) return Fail(s);
    if (ids.empty()) {
      const auto write = [this](std::string_view key, std::string_view stored) {
        Write(key, stored);
        return true;
      };
      constexpr std::uint32_t kNoLimit = std::numeric_limits<std::uint32_t>::max();
      if (Status s = lsm::ForEachLive(view, range.begin, range.end, kNoLimit, write); !s.ok()) {
        return Fail(s);
      }
    }
    for (const std::uint64_t id : ids) {
      const std::string key = std::string(range.begin) + std::to_string(id);
      std::string stored;
      bool found = false;
      if (Status s = lsm::GetLive(view, key, &stored, &found); !s.ok()) return Fail(s);
      if (found) {
        Write(key, stored);
      } else {
        exit_status = Fail(Status::NotFound("no record " + key));
      }
    }
    return exit_status;
  }

 private:
  const StateToRead& state;
  const RowWriter writer;
  const Filter is_wanted;
  int exit_status = tools::kExitYes;
};

}  // namespace

void AddStateListCommands(CLI::App* state, Context* context) {
  const auto add = [&](const char* name, const char* description, auto list) {
    const auto ids = std::make_shared<std::vector<std::uint64_t>>();
    CLI::App* command =
        AddStateCommand(state, context, name, description,
                        [ids, list](const StateToRead& read) { return list(read, *ids); });
    AddIdOption(command, "--id", ids.get(), "only these");
    return command;
  };
  const auto filter = std::make_shared<RegionFilter>();
  CLI::App* regions =
      add("regions", "Lists the regions in the text order of their ids: 10 before 9.",
          [filter](const StateToRead& read, const std::vector<std::uint64_t>& ids) {
            return List<pdpb::Region>(
                       read, {{"id", 10}, {"epoch", 7}, {"stores", 12}, {"start", 20}, {"end", 0}},
                       *filter)
                .Run(meta::kRegionKeys, ids);
          });
  filter->key_option =
      AddKeyOption(regions, "--key", &filter->key, "only those that cover this key");
  AddIdOption(regions, "--voters", &filter->voters, "only those with so many voters")
      ->type_name("N");
  AddIdOption(regions, "--learners", &filter->learners, "only those with so many learners")
      ->type_name("N");
  add("stores", "Lists the stores in the text order of their ids.",
      [](const StateToRead& read, const std::vector<std::uint64_t>& ids) {
        return List<pdpb::Store>(read, {{"id", 10}, {"address", 0}},
                                 [](const pdpb::Store&) { return true; })
            .Run(meta::kStoreKeys, ids);
      });
}

}  // namespace kandb::ctl
