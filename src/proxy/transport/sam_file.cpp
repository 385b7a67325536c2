#include "proxy/transport/sam_file.h"

#include "common/call_failure.h"
#include "common/error.h"
#include "common/file_descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace Vorl {

bool writeSamFile(const std::string& path, const std::string& line) {
    constexpr const char* function = "prepareX11RdpArgs";
    unlink(path.c_str());
    const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file)
        return false;
    const std::string text = line + '\n';
    errno = ENOSPC; // a write that is cut short does not set it
    if (write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        logCallFailed(function, "write");
        unlink(path.c_str());
        throw vorl_error(function);
    }
    return true;
}

} // namespace Vorl
