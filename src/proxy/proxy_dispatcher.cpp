#include "proxy/proxy_dispatcher.h"

#include "common/file_descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace Vorl {

namespace {

/// Opens /dev/null in place of the standard streams that the process was started without.
/// Otherwise the first descriptors would become these streams: what is written to standard error
/// would go over the bus connection, and shadow servers would inherit it.
bool openStandardStreams() {
    FileDescriptor next;
    do {
        (void)next.release(); // a standard stream stays open
        next = FileDescriptor(open("/dev/null", O_RDWR));
    } while (next && next.get() <= STDERR_FILENO);
    return static_cast<bool>(next);
}

/// Before the dispatcher, which opens a pipe.
[[maybe_unused]] const bool streamsAreOpen = openStandardStreams();

} // namespace

BusLoop proxyDispatcher;

} // namespace Vorl
