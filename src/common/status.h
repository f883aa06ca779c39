// The result of every operation that can fail. A value: copied and moved freely, thread-compatible.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace kandb {

class [[nodiscard]] Status {
 public:
  enum Code : std::uint32_t { kOk = 0, kInvalidArgument = 1, kCorruption = 2, kNotFound = 3 };

  // Success.
  Status() = default;
  Status(std::uint32_t code, std::string message)
      : status_code(code), status_message(std::move(message)) {}

  static Status InvalidArgument(std::string message) {
    return {kInvalidArgument, std::move(message)};
  }
  // Stored or received data does not decode or fails a check; also a failed system call, which has
  // no kind of its own.
  static Status Corruption(std::string message) { return {kCorruption, std::move(message)}; }
  static Status NotFound(std::string message) { return {kNotFound, std::move(message)}; }

  bool ok() const { return status_code == kOk; }
  std::uint32_t code() const { return status_code; }
  const std::string& message() const { return status_message; }

  // "OK", or the kind, ": " and the message; a code outside the list is of the kind "Unknown".
  std::string ToString() const;

 private:
  std::uint32_t status_code = kOk;
  std::string status_message;
};

// Corruption "out of memory". Needs no memory itself.
Status OutOfMemory() noexcept;

// A copy, or OutOfMemory() when there is no memory for one.
Status CopyOrOutOfMemory(const Status& status) noexcept;

}  // namespace kandb
