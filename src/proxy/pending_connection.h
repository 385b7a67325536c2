#pragma once

#include "common/file_descriptor.h"
#include "common/owned_file.h"
#include "common/transport_handle.h"
#include "proxy/relay/socket_file.h"

#include <cstdint>
#include <string>

namespace Vorl {

/// An accepted client that has no relay job yet. Lives on the acceptance task's stack.
struct PendingConnection {
    std::uint32_t sessionId;
    std::uint64_t ordinal;     ///< distinguishes the files of several connections to one session
    SocketFile socketFile;     ///< the shadow server's socket
    OwnedFile samFile;         ///< the shadow server's SAM file
    std::string remoteAddress; ///< the client's, as dotted quad
    FileDescriptor client;     ///< empty once closed, or once the job owns it
    TransportHandle transport; ///< empty before the launch, once released, or once the job owns it
};

} // namespace Vorl
