#include "common/run_state.h"

#include <cerrno>
#include <cstdint>
#include <system_error>

#include <sys/eventfd.h>
#include <unistd.h>

namespace Vorl {

std::atomic<bool> proxyRunning = false;

namespace {

std::atomic<int> stopEventFd = -1; // written by startRunning()

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "a signal handler uses both");

} // namespace

void startRunning() {
    const int opened = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (opened < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    stopEventFd = opened;
    proxyRunning = true;
}

bool requestStop() noexcept {
    const int savedErrno = errno; // a signal handler must leave it as it was
    const bool wasRunning = proxyRunning.exchange(false);
    const std::uint64_t once = 1;
    // Fails only when there is no event to signal.
    (void)!write(stopEventFd, &once, sizeof once);
    errno = savedErrno;
    return wasRunning;
}

int stopEvent() noexcept {
    return stopEventFd;
}

} // namespace Vorl
