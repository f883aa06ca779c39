#include "kandb_ctl/key_text.h"

#include <charconv>
#include <cstdint>

namespace kandb::ctl {

namespace {

constexpr std::string_view kHexPrefix = "hex:";

// The value of the first two digits.
std::optional<char> ParseByte(std::string_view digits) {
  if (digits.size() < 2) return std::nullopt;
  std::uint8_t byte = 0;
  const char* end = digits.data() + 2;
  if (std::from_chars(digits.data(), end, byte, 16).ptr != end) return std::nullopt;
  return static_cast<char>(byte);
}

}  // namespace

std::string KeyText(std::string_view key) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  // A key that begins with the prefix must not be read back as hexadecimal digits.
  if (key.starts_with(kHexPrefix)) {
    text = "\\x68";
    key.remove_prefix(1);
  }
  for (const char c : key) {
    const auto byte = static_cast<std::uint8_t>(c);
    if (c == '\\') {
      text += "\\\\";
    } else if (byte >= 0x20 && byte < 0x7f) {
      text += c;
    } else {
      text += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xf]};
    }
  }
  return text;
}

std::string KeyCell(const std::string& key) { return key.empty() ? "\"\"" : KeyText(key); }

std::optional<std::string> ParseKey(std::string_view text) {
  std::string key;
  if (text.starts_with(kHexPrefix)) {
    text.remove_prefix(kHexPrefix.size());
    for (; !text.empty(); text.remove_prefix(2)) {
      const std::optional<char> byte = ParseByte(text);
      if (!byte) return std::nullopt;
      key += *byte;
    }
    return key;
  }
  while (!text.empty()) {
    if (text.starts_with("\\\\")) {
      key += '\\';
      text.remove_prefix(2);
    } else if (text.starts_with("\\x")) {
      const std::optional<char> byte = ParseByte(text.substr(2));
      if (!byte) return std::nullopt;
      key += *byte;
      text.remove_prefix(4);
    } else if (text.front() == '\\') {
      return std::nullopt;
    } else {
      key += text.front();
      text.remove_prefix(1);
    }
  }
  return key;
}

}  // namespace kandb::ctl
