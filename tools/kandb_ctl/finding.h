// Something wrong with a state directory or the records in it.
#pragma once

#include <string>

namespace kandb::ctl {

struct Finding {
  std::string where;  // a file with an offset, or a key
  std::string text;
};

}  // namespace kandb::ctl
