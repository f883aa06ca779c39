// bootstrap: creates the cluster, or registers a further store.
#pragma once

#include "kandb_ctl/command.h"

namespace kandb::ctl {

void AddBootstrapCommand(CLI::App* app, Context* context);

}  // namespace kandb::ctl
