#include "kandb_ctl/command.h"

#include <cstdio>

namespace kandb::ctl {

int Fail(const Status& status) {
  std::fprintf(stderr, "kandb-ctl: %s\n", status.message().c_str());
  return kExitNo;
}

}  // namespace kandb::ctl
