#include "proxy/transport/sam_file.h"

#include "common/call_failure.h"
#include "common/error.h"
#include "common/file_descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace Vorl {

namespace {

[[noreturn]] void giveUp(const char* path, const char* call) {
    constexpr const char* function = "prepareX11RdpArgs";
    logCallFailed(function, call);
    unlink(path);
    throw vorl_error(function);
}

} // namespace

bool writeSamFile(OwnedFile& samFile, const std::string& line) {
    const char* path = samFile.path().c_str();
    unlink(path);
    const FileDescriptor file(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file)
        return false;
    if (!samFile.note(file.get()))
        giveUp(path, "statx");
    const std::string text = line + '\n';
    errno = ENOSPC; // a partial write does not set it
    if (write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        giveUp(path, "write");
    return true;
}

} // namespace Vorl
