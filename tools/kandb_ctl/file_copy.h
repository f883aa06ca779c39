// Copies of files with their SHA-256 sums, durable when they are complete.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "common/status.h"

namespace kandb::ctl {

// Told the number of bytes that were processed.
using CountBytes = std::function<void(std::uint64_t)>;

// Copies `from` to the new file `to` and syncs it; `*sum` becomes the SHA-256 of its bytes, in
// hexadecimal. Corruption "cannot copy <from> to <to>: " and the system's text.
Status CopyFile(const std::string& from, const std::string& to, const CountBytes& count,
                std::string* sum);

// Creates a file with these bytes, durable, and adds up its sum.
Status WriteNewFile(const std::string& path, std::string_view bytes, std::string* sum);

Status SumFile(const std::string& path, const CountBytes& count, std::string* sum);

// Makes the names in a directory durable.
Status SyncDirectory(const std::string& dir);

}  // namespace kandb::ctl
