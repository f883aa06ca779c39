// Messages as JSON and back, from the field lists of the messages themselves: an object with a
// member for each field, repeated fields as arrays, bytes as key text (kandb_ctl/key_text.h), known
// enumeration values by name and others as numbers.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "kandb_ctl/key_text.h"
#include "pdpb/messages.h"
#include "tools/common/message_names.h"

namespace kandb::ctl {

using Json = nlohmann::ordered_json;

// JSON on one line. Bytes that are no UTF-8, as a path may have, are replaced.
std::string JsonText(const Json& json);
// The same with a newline, on standard output.
void PrintJson(const Json& json);

using tools::EnumText;
using tools::kEnumNames;

template <class T>
Json ToJson(const T& value);

template <class T>
Json ToJson(const std::vector<T>& values) {
  Json array = Json::array();
  for (const T& value : values) array.push_back(ToJson(value));
  return array;
}

template <class T>
Json ToJson(const T& value) {
  if constexpr (pdpb::Message<T>) {
    Json object = Json::object();
    std::apply(
        [&](const auto&... field) { ((object[field.name] = ToJson(value.*field.member)), ...); },
        T::Fields());
    return object;
  } else if constexpr (std::is_enum_v<T>) {
    for (const auto& [known, name] : kEnumNames<T>) {
      if (known == value) return name;
    }
    return static_cast<std::uint64_t>(value);
  } else if constexpr (std::is_same_v<T, std::string>) {
    return KeyText(value);
  } else {
    return value;
  }
}

// Throws std::runtime_error, naming the member, for JSON that does not fit: a wrong type, a number
// out of range, an unknown member. Members that are left out keep their values.
template <class T>
void FromJson(const Json& json, const std::string& where, T* value);

template <class T>
void FromJson(const Json& json, const std::string& where, std::vector<T>* values) {
  if (!json.is_array()) throw std::runtime_error(where + ": an array is wanted");
  values->clear();
  for (std::size_t i = 0; i < json.size(); ++i) {
    FromJson(json[i], where + "[" + std::to_string(i) + "]", &values->emplace_back());
  }
}

template <class T>
void FromJson(const Json& json, const std::string& where, T* value) {
  if constexpr (pdpb::Message<T>) {
    if (!json.is_object()) throw std::runtime_error(where + ": an object is wanted");
    for (const auto& [name, member] : json.items()) {
      const auto take = [&, &name_text = name, &member_json = member](const auto& field) {
        if (name_text != field.name) return false;
        FromJson(member_json, where + "." + name_text, &(value->*field.member));
        return true;
      };
      const bool known =
          std::apply([&](const auto&... field) { return (take(field) || ...); }, T::Fields());
      if (!known) throw std::runtime_error(where + ": unknown member \"" + name + "\"");
    }
  } else if constexpr (std::is_same_v<T, std::string>) {
    const auto bytes = json.is_string() ? ParseKey(json.template get<std::string>()) : std::nullopt;
    if (!bytes) throw std::runtime_error(where + ": a key text is wanted");
    *value = *bytes;
  } else if constexpr (std::is_same_v<T, bool>) {
    if (!json.is_boolean()) throw std::runtime_error(where + ": true or false is wanted");
    *value = json.template get<bool>();
  } else {
    if constexpr (std::is_enum_v<T>) {
      for (const auto& [known, name] : kEnumNames<T>) {
        if (json == name) {
          *value = known;
          return;
        }
      }
    }
    const bool fits =
        json.is_number_unsigned() &&
        static_cast<std::uint64_t>(static_cast<T>(json.template get<std::uint64_t>())) ==
            json.template get<std::uint64_t>();
    if (!fits) throw std::runtime_error(where + ": a number in range is wanted");
    *value = static_cast<T>(json.template get<std::uint64_t>());
  }
}

}  // namespace kandb::ctl
