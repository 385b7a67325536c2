#include "common/readiness.h"

#include "common/call_failure.h"
#include "common/error.h"

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/ioctl.h>

namespace Vorl::Utils {

bool hasInput(int descriptor, int timeout) {
    if (descriptor < 0)
        return false;

    pollfd entry{descriptor, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, timeout);
    } while (ready < 0 && errno == EINTR);

    if (ready < 0) {
        logCallFailed("hasInput", "poll");
        throw vorl_error("hasInput");
    }
    return ready > 0 && (entry.revents & POLLIN) != 0;
}

int hasData(int descriptor) {
    if (descriptor < 0)
        return 0;

    int count = 0;
    if (ioctl(descriptor, FIONREAD, &count) < 0) {
        logCallFailed("hasData", "ioctl");
        throw vorl_error("hasData");
    }
    return std::max(count, 0);
}

} // namespace Vorl::Utils
