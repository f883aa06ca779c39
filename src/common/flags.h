// The process-wide command-line flags: --name=value or --name value.
//
// Modules define flags at namespace scope, that is, during static initialisation. The entry point
// parses the command line once. Values are read through the pointers that the definitions returned,
// which stay valid for the life of the process. Not thread-safe: definition and parsing precede all
// threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kandb::flags {

// Registers a flag and returns a pointer to its value, which is the default until the command line
// is parsed. A name that is already taken ends the process with exit status 1.
std::int64_t* DefineInteger(std::string name, std::int64_t default_value, std::string help);
bool* DefineBoolean(std::string name, bool default_value, std::string help);
std::string* DefineString(std::string name, std::string default_value, std::string help);

// Sets the flags from the command line. A bad argument is named on standard error and ends the
// process with exit status 1; "-h" or "--help" prints the usage there and ends it with 0.
void Parse(int argc, const char* const* argv);

// As Parse, but where Parse ends the process, returns the exit status instead.
std::optional<int> TryParse(int argc, const char* const* argv);

// Lists every flag with its help and default on standard error, in the order of definition.
void PrintUsage(const char* program);

}  // namespace kandb::flags
