// Integers as bytes at any address. The only place that knows the byte order of this machine. Files
// and messages are little-endian. Big-endian loads are for the ciphers, and for comparing bytes in
// their order as numbers.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>

namespace kandb {

static_assert(std::endian::native == std::endian::little,
              "loads and stores below copy native bytes");

template <class Integer>
Integer LoadLittleEndian(const char* from) {
  Integer value;
  std::memcpy(&value, from, sizeof(value));
  return value;
}

inline std::uint16_t LoadU16(const char* from) { return LoadLittleEndian<std::uint16_t>(from); }
inline std::uint32_t LoadU32(const char* from) { return LoadLittleEndian<std::uint32_t>(from); }
inline std::uint64_t LoadU64(const char* from) { return LoadLittleEndian<std::uint64_t>(from); }

// Writes sizeof(Integer) bytes at `to`.
template <class Integer>
void StoreLittleEndian(Integer value, char* to) {
  std::memcpy(to, &value, sizeof(value));
}

inline std::uint32_t ReverseBytes(std::uint32_t value) { return __builtin_bswap32(value); }
inline std::uint64_t ReverseBytes(std::uint64_t value) { return __builtin_bswap64(value); }

// `Integer` is std::uint32_t or std::uint64_t.
template <class Integer>
Integer LoadBigEndian(const char* from) {
  return ReverseBytes(LoadLittleEndian<Integer>(from));
}
template <class Integer>
void StoreBigEndian(Integer value, char* to) {
  StoreLittleEndian(ReverseBytes(value), to);
}

template <class Integer>
void AppendLittleEndian(Integer value, std::string* out) {
  char bytes[sizeof(value)];
  StoreLittleEndian(value, bytes);
  out->append(bytes, sizeof(bytes));
}

inline void AppendU16(std::uint16_t value, std::string* out) { AppendLittleEndian(value, out); }
inline void AppendU32(std::uint32_t value, std::string* out) { AppendLittleEndian(value, out); }
inline void AppendU64(std::uint64_t value, std::string* out) { AppendLittleEndian(value, out); }

}  // namespace kandb
