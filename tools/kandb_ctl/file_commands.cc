#include "kandb_ctl/command.h"

namespace kandb::ctl {

void AddFileCommands(CLI::App* app, Context* context) {
  (void)app;
  (void)context;
}

}  // namespace kandb::ctl
