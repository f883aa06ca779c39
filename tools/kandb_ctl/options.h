// Options that several commands have: keys, identifiers, regions, the passphrase. A value that does
// not parse is wrong usage. Pointers are borrowed until the options have been parsed.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "pdpb/messages.h"

namespace kandb::ctl {

// `name` is "--option", or "KEY" for a positional argument.
CLI::Option* AddKeyOption(CLI::App* command, const std::string& name, std::string* key,
                          const std::string& help);

// Decimal digits and nothing else: the parser's own integers would take -1, and 010 for 8.
CLI::Option* AddIdOption(CLI::App* command, const std::string& name, std::uint64_t* id,
                         const std::string& help);
CLI::Option* AddIdOption(CLI::App* command, const std::string& name,
                         std::vector<std::uint64_t>* ids, const std::string& help);

// The options for the range, the epoch and the peers of a region. The epoch becomes 1.1.
void AddRegionOptions(CLI::App* command, pdpb::Region* region);

// The file with the passphrase of sealed values.
void AddPassphraseOption(CLI::App* command, std::string* path);

// Whether the directory may be that of a running server.
void AddLiveOption(CLI::App* command, bool* live);

// How many voters a region must have; 0 without the option.
void AddVotersOption(CLI::App* command, std::size_t* wanted_voters);

// For a command that either reads everything from standard input or needs `required`. Throws when
// neither is given, or --stdin together with another option. Called once the options have been
// parsed.
void CheckStdinOr(const CLI::Option& required, const CLI::App& command, bool from_stdin);

}  // namespace kandb::ctl
