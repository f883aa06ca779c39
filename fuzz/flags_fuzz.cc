// Command lines, one argument per line: accepted values, written out again, are accepted.

#include <sstream>
#include <vector>

#include "common/flags.h"
#include "target.h"

namespace kandb::fuzz {

static const auto* const number = flags::DefineInteger("number", 0, "");
static const auto* const truth = flags::DefineBoolean("truth", false, "");
static const auto* const text = flags::DefineString("text", "", "");

// Leaves the values, as a command line, in `*command_line`.
static std::optional<int> Parse(std::string* command_line) {
  std::istringstream lines(*command_line);
  std::vector<std::string> arguments;
  for (std::string line; std::getline(lines, line);) arguments.emplace_back(line.c_str());
  std::vector<const char*> argv = {"program"};
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  const auto exit_status = flags::TryParse(static_cast<int>(argv.size()), argv.data());
  *command_line = "--number=" + std::to_string(*number) + (*truth ? "\n--truth" : "\n--truth=0") +
                  "\n--text\n" + *text + "\n";
  return exit_status;
}

void TryInput(std::string_view input) {
  // Nearly every input prints an error; the fuzzer itself keeps the old stream.
  [[maybe_unused]] static std::FILE* const nowhere = stderr = std::fopen("/dev/null", "w");
  std::string values(input);
  const int exit_status = Parse(&values).value_or(0);
  Claim(exit_status == 0 || exit_status == 1);
  std::string same_values = values;
  Claim(!Parse(&same_values) && same_values == values);
}

}  // namespace kandb::fuzz
