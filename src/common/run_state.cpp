#include "common/run_state.h"

namespace Vorl {

std::atomic<bool> proxyRunning = false;

static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler stores into proxyRunning");

} // namespace Vorl
