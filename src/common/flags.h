// The process-wide command-line flags: --name=value or --name value.
//
// Modules define flags at namespace scope, so during static initialisation; the entry point parses
// the command line once; after that everyone reads through the pointers that the definitions
// returned. These stay valid for the life of the process. Not thread-safe: definition and parsing
// precede all threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kandb::flags {

// Registers a flag and returns where its value stands: the default until the command line is
// parsed. A name that is already taken ends the process with exit status 1.
std::int64_t* DefineInteger(std::string name, std::int64_t default_value, std::string help);
bool* DefineBoolean(std::string name, bool default_value, std::string help);
std::string* DefineString(std::string name, std::string default_value, std::string help);

// Sets the flags from the command line. A bad argument is named on standard error and ends the
// process with exit status 1; "-h" or "--help" prints the usage there and ends it with 0.
void Parse(int argc, const char* const* argv);

// The same without ending the process: returns the exit status that Parse would end it with, if it
// would.
std::optional<int> TryParse(int argc, const char* const* argv);

// Lists every flag with its help and default on standard error, in the order of definition.
void PrintUsage(const char* program);

}  // namespace kandb::flags
