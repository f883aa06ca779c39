// The encoding of messages: a flat sequence of tagged fields, no header, no count, no terminator.
//
//   offset   size  field
//   0        2     tag: number of the field, little-endian like every number here
//   2        4     L = length of the value
//   6        L     value
//
//   value                      encoding
//   integer, enumeration       8 bytes; a reader keeps as many low bytes as its member has
//   boolean                    1 byte, any non-zero byte is true
//   bytes                      as they are
//   message                    its own encoding
//   repeated field (vector)    one field an element, all with the same tag
//
// A message type lists its fields once, in ascending order of their tags:
//
//   static constexpr auto Fields() { return std::tuple{Field{1, "id", &Peer::id}, ...}; }
//
// Encode and Decode both follow that list. A field is always written, unless its entry in the list
// says kOmittedWhenEmpty. Stateless; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "common/check.h"
#include "common/endian.h"

namespace kandb::pdpb {

// Whether the encoder writes a field whose value has no bytes.
enum Presence { kAlwaysWritten, kOmittedWhenEmpty };

// One entry of a message's list: a member of type T and how it is encoded.
template <class M, class T>
struct Field {
  std::uint16_t tag;
  const char* name;  // for people
  T M::*member;      // a vector is written as one field for each element
  Presence presence;
  constexpr Field(std::uint16_t field_tag, const char* field_name, T M::*field_member,
                  Presence field_presence = kAlwaysWritten)
      : tag(field_tag), name(field_name), member(field_member), presence(field_presence) {}
};

template <class M>
concept Message = requires {
  M::Fields();
};

// Calls `visit(field)` for each entry of the list, in order.
template <Message M, class Visit>
[[gnu::always_inline]] constexpr void ForEachField(Visit visit) {
  std::apply([&](const auto&... field) { (visit(field), ...); }, M::Fields());
}

template <Message M>
void AppendTo(const M& message, std::string* out);
template <Message M>
bool Decode(std::string_view bytes, M* message);

// --- The three append operations, from which every encoder is made ---

inline constexpr std::size_t kFieldHeaderSize = 2 + 4;  // bytes

// A length that does not fit its field ends the process, as it would make the rest unreadable.
inline void CheckLength(std::size_t length) {
  KANDB_CHECK(length <= std::numeric_limits<std::uint32_t>::max(), length);
}

inline void AppendFieldHeader(std::uint16_t tag, std::size_t length, std::string* out) {
  CheckLength(length);
  AppendU16(tag, out);
  AppendU32(static_cast<std::uint32_t>(length), out);
}

void AppendField(std::uint16_t tag, std::string_view value, std::string* out);
void AppendInteger(std::uint16_t tag, std::uint64_t value, std::string* out);

// The message is encoded in place and its length filled in afterwards, so that each byte is written
// once.
template <Message M>
void AppendMessage(std::uint16_t tag, const M& message, std::string* out) {
  AppendFieldHeader(tag, 0, out);
  const std::size_t start = out->size();
  AppendTo(message, out);
  const std::size_t length = out->size() - start;
  CheckLength(length);
  StoreLittleEndian(static_cast<std::uint32_t>(length), out->data() + start - 4);
}

// --- Encoding by the type of a member ---

template <class T>
void AppendValue(std::uint16_t tag, const T& value, std::string* out) {
  if constexpr (Message<T>) {
    AppendMessage(tag, value, out);
  } else if constexpr (std::is_same_v<T, bool>) {
    AppendField(tag, std::string_view(value ? "\1" : "\0", 1), out);
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    AppendInteger(tag, static_cast<std::uint64_t>(value), out);
  } else {
    AppendField(tag, value, out);
  }
}

template <class T>
void AppendValue(std::uint16_t tag, const std::vector<T>& values, std::string* out) {
  for (const T& value : values) AppendValue(tag, value, out);
}

// --- Sizes, in bytes; constant expressions for messages of fixed size ---

template <Message M>
constexpr std::size_t EncodedSize(const M& message);

// Of the field that a member is written as, or the fields of a repeated one.
template <class T>
constexpr std::size_t FieldSize(const T& value) {
  if constexpr (Message<T>) {
    return kFieldHeaderSize + EncodedSize(value);
  } else if constexpr (std::is_same_v<T, bool>) {
    return kFieldHeaderSize + 1;
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    return kFieldHeaderSize + sizeof(std::uint64_t);
  } else {
    return kFieldHeaderSize + value.size();
  }
}

template <class T>
constexpr std::size_t FieldSize(const std::vector<T>& values) {
  std::size_t size = 0;
  for (const T& value : values) size += FieldSize(value);
  return size;
}

// True for a field that the encoder leaves out of `message`.
template <class M, class T>
constexpr bool IsOmitted(const M& message, const Field<M, T>& field) {
  return field.presence == kOmittedWhenEmpty &&
         FieldSize(message.*field.member) == kFieldHeaderSize;
}

// Of what AppendTo appends.
template <Message M>
constexpr std::size_t EncodedSize(const M& message) {
  std::size_t size = 0;
  ForEachField<M>([&](const auto& field) {
    if (!IsOmitted(message, field)) size += FieldSize(message.*field.member);
  });
  return size;
}

// --- Encoding ---

// Appends the encoding of `message`.
template <Message M>
void AppendTo(const M& message, std::string* out) {
  ForEachField<M>([&](const auto& field) {
    if (!IsOmitted(message, field)) AppendValue(field.tag, message.*field.member, out);
  });
}

template <Message M>
std::string Encode(const M& message) {
  std::string out;
  AppendTo(message, &out);
  return out;
}

// --- Decoding by the type of a member; false when the value does not fit it ---

// An element of a repeated field can be six bytes in a message and over a hundred in memory. So
// that a peer cannot make a payload of 64 MiB take more than a gigabyte, the elements of one
// message together may take kDecodedSizeBase plus kDecodedSizeFactor times the size of its
// encoding; beyond that it does not decode. Only a crafted payload exceeds this: what an encoder of
// this catalogue writes takes less than the factor, and more than half a million elements without
// fields fit the base.
inline constexpr std::size_t kDecodedSizeBase = std::size_t{64} << 20;  // bytes
inline constexpr std::size_t kDecodedSizeFactor = 4;

class DecodeBudget {
 public:
  explicit DecodeBudget(std::size_t encoded_size)
      : left(kDecodedSizeBase + kDecodedSizeFactor * encoded_size) {}

  // False, taking nothing, when fewer than `size` bytes are left.
  bool Take(std::size_t size) {
    if (size > left) return false;
    left -= size;
    return true;
  }

 private:
  std::size_t left;  // bytes
};

// The values of a repeated integer field, read where they are encoded: fields of one tag, perhaps
// with others between them. The member that replaces a vector where a message is only read.
class IntegersView {
 public:
  class Iterator {
   public:
    using value_type = std::uint64_t;
    using difference_type = std::ptrdiff_t;
    using pointer = const std::uint64_t*;
    using reference = std::uint64_t;
    using iterator_category = std::input_iterator_tag;

    Iterator(const char* first_field, std::size_t field_count)
        : field(first_field), left(field_count) {}
    std::uint64_t operator*() const { return LoadU64(field + kFieldHeaderSize); }
    Iterator& operator++() {
      if (--left == 0) return *this;  // there may be no field after the last
      const std::uint16_t tag = LoadU16(field);
      do field += kFieldHeaderSize + LoadU32(field + 2);
      while (LoadU16(field) != tag);
      return *this;
    }
    bool operator==(const Iterator& other) const { return left == other.left; }

   private:
    const char* field;  // of the current value: its header
    std::size_t left;   // values from the current one on
  };

  Iterator begin() const { return {first, count}; }
  Iterator end() const { return {first, 0}; }
  std::size_t size() const { return count; }

  // `value` is that of the next field with this tag, in the same buffer.
  void Add(std::string_view value) {
    if (count == 0) first = value.data() - kFieldHeaderSize;
    ++count;
  }

 private:
  const char* first = nullptr;  // header of the first field
  std::size_t count = 0;
};

template <Message M>
bool DecodeFields(std::string_view bytes, M* message, DecodeBudget* budget);

template <class T>
bool DecodeValue(std::string_view value, T* member, DecodeBudget* budget) {
  if constexpr (Message<T>) {
    // A later occurrence of the field replaces an earlier one as a whole.
    *member = T{};
    return DecodeFields(value, member, budget);
  } else if constexpr (std::is_same_v<T, bool>) {
    if (value.size() != 1) return false;
    *member = value[0] != 0;
    return true;
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    if (value.size() != 8) return false;
    *member = static_cast<T>(LoadU64(value.data()));
    return true;
  } else {
    *member = value;
    return true;
  }
}

template <class T>
bool DecodeValue(std::string_view value, std::vector<T>* members, DecodeBudget* budget) {
  return DecodeValue(value, &members->emplace_back(), budget);
}

inline bool DecodeValue(std::string_view value, IntegersView* members, DecodeBudget*) {
  if (value.size() != sizeof(std::uint64_t)) return false;
  members->Add(value);
  return true;
}

// Takes the next field off `*bytes`; false when it is torn. Always inline: out of line, the two
// halves of a view are stored one by one, and a load of the whole view stalls on them.
[[gnu::always_inline]] inline bool TakeField(std::string_view* bytes, std::uint16_t* tag,
                                             std::string_view* value) {
  if (bytes->size() < kFieldHeaderSize) return false;
  *tag = LoadU16(bytes->data());
  const std::uint32_t length = LoadU32(bytes->data() + 2);
  if (length > bytes->size() - kFieldHeaderSize) return false;
  *value = bytes->substr(kFieldHeaderSize, length);
  bytes->remove_prefix(kFieldHeaderSize + length);
  return true;
}

template <class T>
bool ReserveElements(std::string_view, std::uint16_t, T*, DecodeBudget*) {
  return true;
}

// Reserves memory for the elements of the repeated field `tag` in `bytes`; false when they exceed
// the budget.
template <class T>
bool ReserveElements(std::string_view bytes, std::uint16_t tag, std::vector<T>* members,
                     DecodeBudget* budget) {
  std::size_t count = 0;
  std::uint16_t field_tag = 0;
  std::string_view value;
  while (TakeField(&bytes, &field_tag, &value)) count += field_tag == tag ? 1 : 0;
  if (!budget->Take(count * sizeof(T))) return false;
  members->reserve(count);
  return true;
}

// Decodes the value into the member whose field has the tag; a tag of no field is skipped. False
// when the value does not fit the member.
template <Message M, std::size_t index = 0>
[[gnu::always_inline]] inline bool DecodeField(std::uint16_t tag, std::string_view value,
                                               M* message, DecodeBudget* budget) {
  constexpr auto kFields = M::Fields();
  if constexpr (index < std::tuple_size_v<decltype(kFields)>) {
    constexpr auto kField = std::get<index>(kFields);
    if (tag == kField.tag) return DecodeValue(value, &(message->*kField.member), budget);
    return DecodeField<M, index + 1>(tag, value, message, budget);
  }
  return true;
}

template <Message M>
bool DecodeFields(std::string_view bytes, M* message, DecodeBudget* budget) {
  bool enough = true;
  ForEachField<M>([&](const auto& field) {
    enough = enough && ReserveElements(bytes, field.tag, &(message->*field.member), budget);
  });
  if (!enough) return false;

  std::uint16_t tag = 0;
  std::string_view value;
  while (TakeField(&bytes, &tag, &value)) {
    if (!DecodeField(tag, value, message, budget)) return false;
  }
  return bytes.empty();
}

// Decodes into a freshly constructed message; fields that do not occur keep their defaults, unknown
// ones are skipped. False when `bytes` are not a whole number of fields, a known field does not fit
// its member, or the elements exceed the budget above; the message is then partly filled. Throws
// std::bad_alloc. Members of type std::string_view or IntegersView point into `bytes`.
template <Message M>
bool Decode(std::string_view bytes, M* message) {
  DecodeBudget budget(bytes.size());
  return DecodeFields(bytes, message, &budget);
}

}  // namespace kandb::pdpb
