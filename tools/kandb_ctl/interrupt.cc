#include "kandb_ctl/interrupt.h"

#include <atomic>

namespace kandb::ctl {

namespace {

// Relaxed: it orders no other memory. Lock-free, as a signal handler needs it.
std::atomic<bool> interrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free);

void Remember(int) { interrupted.store(true, std::memory_order_relaxed); }

}  // namespace

void CatchInterrupts(std::initializer_list<int> signals) {
  struct sigaction action {};
  action.sa_handler = Remember;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : signals) (void)::sigaction(signal, &action, nullptr);
}

bool Interrupted() { return interrupted.load(std::memory_order_relaxed); }

}  // namespace kandb::ctl
