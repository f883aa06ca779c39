// Ctrl-C and SIGTERM as a question that long commands ask, so that they can print what they have
// measured. A second one ends the program.
#pragma once

#include <signal.h>

#include <initializer_list>

namespace kandb::ctl {

// From here on a first signal is only remembered. Waits of the calling thread end early with it.
void CatchInterrupts(std::initializer_list<int> signals = {SIGINT, SIGTERM});

bool Interrupted();

}  // namespace kandb::ctl
