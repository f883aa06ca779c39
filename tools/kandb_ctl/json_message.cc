#include "kandb_ctl/json_message.h"

#include <cstdio>

namespace kandb::ctl {

std::string JsonText(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void PrintJson(const Json& json) { std::printf("%s\n", JsonText(json).c_str()); }

}  // namespace kandb::ctl
