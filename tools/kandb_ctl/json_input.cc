#include "kandb_ctl/json_input.h"

#include <exception>
#include <iostream>
#include <string>

#include "kandb_ctl/command.h"

namespace kandb::ctl {

bool ReadJson(const std::function<void(const Json&)>& take) {
  try {
    take(Json::parse(std::cin));
    return true;
  } catch (const std::exception& error) {
    (void)Fail(Status::InvalidArgument(std::string("standard input: ") + error.what()));
    return false;
  }
}

}  // namespace kandb::ctl
