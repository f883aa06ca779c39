// JSON from standard input.
#pragma once

#include <functional>

#include "kandb_ctl/json_message.h"

namespace kandb::ctl {

// Parses standard input and calls `take`, which may throw as FromJson does. False when the input is
// not JSON or does not fit; standard error then says why.
bool ReadJson(const std::function<void(const Json&)>& take);

}  // namespace kandb::ctl
