#include "kandb_ctl/options.h"

#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

#include "kandb_ctl/key_text.h"

namespace kandb::ctl {

namespace {

std::optional<std::uint64_t> ParseId(std::string_view text) {
  std::uint64_t id = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, id);
  if (error != std::errc() || stop != end) return std::nullopt;
  return id;
}

std::uint64_t IdOrThrow(const std::string& option, const std::string& text) {
  const std::optional<std::uint64_t> id = ParseId(text);
  if (!id) throw CLI::ValidationError(option, "not an identifier: " + text);
  return *id;
}

// ID:STORE, or ID:STORE:learner.
std::optional<pdpb::Peer> ParsePeer(std::string_view text) {
  constexpr std::string_view kLearnerSuffix = ":learner";
  pdpb::Peer peer;
  if (text.ends_with(kLearnerSuffix)) {
    peer.role = pdpb::PeerRole::kLearner;
    text.remove_suffix(kLearnerSuffix.size());
  }
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::optional<std::uint64_t> id = ParseId(text.substr(0, colon));
  const std::optional<std::uint64_t> store_id = ParseId(text.substr(colon + 1));
  if (!id || !store_id) return std::nullopt;
  peer.id = *id;
  peer.store_id = *store_id;
  return peer;
}

}  // namespace

CLI::Option* AddKeyOption(CLI::App* command, const std::string& name, std::string* key,
                          const std::string& help) {
  return command
      ->add_option_function<std::string>(
          name,
          [name, key](const std::string& text) {
            std::optional<std::string> bytes = ParseKey(text);
            if (!bytes) throw CLI::ValidationError(name, "not a key: " + text);
            *key = std::move(*bytes);
          },
          help + "; text with \\\\ and \\xNN, or hex: and pairs of digits")
      ->type_name("KEY");
}

CLI::Option* AddIdOption(CLI::App* command, const std::string& name, std::uint64_t* id,
                         const std::string& help) {
  return command
      ->add_option_function<std::string>(
          name, [name, id](const std::string& text) { *id = IdOrThrow(name, text); }, help)
      ->type_name("ID");
}

CLI::Option* AddIdOption(CLI::App* command, const std::string& name,
                         std::vector<std::uint64_t>* ids, const std::string& help) {
  const auto take = [name, ids](const std::vector<std::string>& texts) {
    for (const std::string& text : texts) ids->push_back(IdOrThrow(name, text));
  };
  return command->add_option_function<std::vector<std::string>>(name, take, help)->type_name("ID");
}

void AddRegionOptions(CLI::App* command, pdpb::Region* region) {
  region->epoch = {1, 1};
  AddKeyOption(command, "--start-key", &region->start_key,
               "first key of the range; without it there is no bound");
  AddKeyOption(command, "--end-key", &region->end_key,
               "end of the range, exclusive; without it there is no bound");
  AddIdOption(command, "--conf-version", &region->epoch.conf_version,
              "epoch: changes of the members; 1 without it")
      ->type_name("N");
  AddIdOption(command, "--version", &region->epoch.version,
              "epoch: changes of the key range; 1 without it")
      ->type_name("N");
  const auto take_peers = [region](const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
      const std::optional<pdpb::Peer> peer = ParsePeer(text);
      if (!peer) throw CLI::ValidationError("--peer", "not ID:STORE or ID:STORE:learner: " + text);
      region->peers.push_back(*peer);
    }
  };
  command
      ->add_option_function<std::vector<std::string>>(
          "--peer", take_peers, "a replica, once for each; the first counts as the leader")
      ->type_name("ID:STORE[:learner]")
      ->allow_extra_args(false);
}

void AddPassphraseOption(CLI::App* command, std::string* path) {
  command->add_option("--passphrase-file", *path,
                      "file with the passphrase that opens sealed values");
}

void AddLiveOption(CLI::App* command, bool* live) {
  command->add_flag("--live", *live,
                    "read the directory of a running server, as it is at one moment");
}

void AddVotersOption(CLI::App* command, std::size_t* wanted_voters) {
  command
      ->add_option("--voters", *wanted_voters,
                   "voters that a region must have; without it as many as most regions have")
      ->check(CLI::PositiveNumber);
}

void CheckStdinOr(const CLI::Option& required, const CLI::App& command, bool from_stdin) {
  if (!from_stdin && required.empty())
    throw CLI::RequiredError(required.get_name() + " or --stdin");
  for (const CLI::Option* option : command.get_options()) {
    const std::string name = option->get_name();
    if (from_stdin && !option->empty() && name != "--stdin" && name != "--force") {
      throw CLI::ExcludesError("--stdin", option->get_name());
    }
  }
}

}  // namespace kandb::ctl
