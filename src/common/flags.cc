#include "common/flags.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string_view>
#include <utility>
#include <variant>

namespace kandb::flags {

namespace {

using Value = std::variant<std::int64_t, bool, std::string>;

struct Flag {
  std::string name;  // without the leading "--"
  std::string help;
  std::string default_text;
  Value value;
};

// Created by whichever definition comes first. A deque never moves its elements, so pointers into
// their values stay valid.
std::deque<Flag>& Registry() {
  static std::deque<Flag> flags;
  return flags;
}

Flag* Find(std::string_view name) {
  for (Flag& flag : Registry()) {
    if (flag.name == name) return &flag;
  }
  return nullptr;
}

template <class T>
T* Define(std::string name, std::string help, std::string default_text, T default_value) {
  if (Find(name) != nullptr) {
    std::fprintf(stderr, "duplicate flag definition: --%s\n", name.c_str());
    std::exit(1);
  }
  Registry().push_back({std::move(name), std::move(help), std::move(default_text),
                        Value(std::in_place_type<T>, std::move(default_value))});
  return &std::get<T>(Registry().back().value);
}

bool Convert(const std::string& text, std::int64_t* value) {
  errno = 0;
  char* end = nullptr;
  const long long number = std::strtoll(text.c_str(), &end, 10);
  // A text with an inner zero byte cannot come from a command line; the end test still rejects it.
  if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE) return false;
  *value = number;
  return true;
}

bool Convert(const std::string& text, bool* value) {
  if (text == "true" || text == "1") {
    *value = true;
    return true;
  }
  // "--name=" switches a flag off.
  if (text == "false" || text == "0" || text.empty()) {
    *value = false;
    return true;
  }
  return false;
}

bool Convert(const std::string& text, std::string* value) {
  *value = text;
  return true;
}

int Length(std::string_view text) { return static_cast<int>(text.size()); }

}  // namespace

std::int64_t* DefineInteger(std::string name, std::int64_t default_value, std::string help) {
  return Define<std::int64_t>(std::move(name), std::move(help), std::to_string(default_value),
                              default_value);
}

bool* DefineBoolean(std::string name, bool default_value, std::string help) {
  return Define<bool>(std::move(name), std::move(help), default_value ? "true" : "false",
                      default_value);
}

std::string* DefineString(std::string name, std::string default_value, std::string help) {
  std::string default_text = default_value;
  return Define<std::string>(std::move(name), std::move(help), std::move(default_text),
                             std::move(default_value));
}

void PrintUsage(const char* program) {
  std::fprintf(stderr, "usage: %s [flags]\n", program);
  for (const Flag& flag : Registry()) {
    std::fprintf(stderr, "  --%-20s %s (default: %s)\n", flag.name.c_str(), flag.help.c_str(),
                 flag.default_text.c_str());
  }
}

std::optional<int> TryParse(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "-h" || argument == "--help") {
      PrintUsage(argv[0]);
      return 0;
    }
    if (!argument.starts_with("--")) {
      std::fprintf(stderr, "unexpected argument: %s\n", argv[i]);
      PrintUsage(argv[0]);
      return 1;
    }

    const std::string_view body = argument.substr(2);
    const std::size_t equals = body.find('=');
    const bool has_value = equals != std::string_view::npos;
    const std::string_view name = body.substr(0, equals);
    Flag* flag = Find(name);
    if (flag == nullptr) {
      std::fprintf(stderr, "unknown flag: --%.*s\n", Length(name), name.data());
      PrintUsage(argv[0]);
      return 1;
    }

    std::string text;
    if (has_value) {
      text = body.substr(equals + 1);
    } else if (bool* boolean = std::get_if<bool>(&flag->value)) {
      *boolean = true;
      continue;
    } else if (i + 1 < argc) {
      text = argv[++i];
    } else {
      std::fprintf(stderr, "flag --%s requires a value\n", flag->name.c_str());
      return 1;
    }

    if (!std::visit([&](auto& value) { return Convert(text, &value); }, flag->value)) {
      std::fprintf(stderr, "bad value for --%s: '%s'\n", flag->name.c_str(), text.c_str());
      return 1;
    }
  }
  return std::nullopt;
}

void Parse(int argc, const char* const* argv) {
  if (const auto exit_status = TryParse(argc, argv)) std::exit(*exit_status);
}

}  // namespace kandb::flags
