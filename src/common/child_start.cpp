#include "common/child_start.h"

#include "common/call_failure.h"
#include "common/strings.h"
#include "logger"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <linux/close_range.h>
#include <unistd.h>

namespace Vorl::Utils {

namespace {

constexpr const char* nullDevice = "/dev/null";

[[noreturn]] void execFalse() {
    execl("/bin/false", "/bin/false", nullptr);
    _exit(0);
}

void resetSignals() {
    // NOLINTBEGIN(bugprone-signal-handler): no handlers, only the two standard dispositions
    signal(SIGTERM, SIG_DFL);
    signal(SIGCHLD, SIG_DFL);
    signal(SIGINT, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    // NOLINTEND(bugprone-signal-handler)
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &termination, nullptr); // blocked since before the fork
}

/// Whether debug lines are written: the child should not allocate memory for those that are not.
bool writesDebugLines() {
    return Syslog::isTraceMode() || Syslog::isDebugLevel(DebugLevel::Debug) ||
           Syslog::isDebugLevel(DebugLevel::Console);
}

void switchToOwner(const UserInfo& owner) {
    if (!switchToUser(owner))
        execFalse();
    Syslog::debug("%s: switched user: %s, current uid: %d, gid: %d", "runOwnerCommand",
                  owner.user.c_str(), getuid(), getgid());
}

/// The directory for the logs of an owner's programs, created if missing. Errors are ignored:
/// opening the log file will fail then.
std::filesystem::path ownerLogDirectory(const UserInfo& owner) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    fs::path directory = fs::is_directory(owner.home, ignored)
                             ? fs::path(owner.home) / ".vorl"
                             : fs::path("/tmp") / (".vorl_" + owner.user);
    if (!fs::is_directory(directory, ignored)) {
        fs::create_directory(directory, ignored);
        fs::permissions(directory, fs::perms::group_all | fs::perms::others_all,
                        fs::perm_options::remove, ignored);
    }
    return directory;
}

std::string outputFile(const std::filesystem::path& command, const UserInfo* owner,
                       const char* logFile) {
    if (logFile != nullptr)
        return logFile;
    if (owner == nullptr)
        return nullDevice;
    return ownerLogDirectory(*owner) / command.filename().replace_extension(".log");
}

/// Marks all descriptors but the three standard streams close-on-exec. They stay open until execve,
/// because a failing execve must still be logged through libsystemd's journal socket. One call
/// instead of a loop: the descriptor limit can be 10^8 and more, and a loop over it takes longer
/// than the client waits.
void closeDescriptorsOnExec() {
    if (close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) < 0) {
        logCallFailed("runOwnerCommand", "close_range");
        execFalse(); // the program would inherit the connections of other users
    }
}

} // namespace

void runOwnerCommand(const std::filesystem::path& command, const std::list<std::string>& arguments,
                     const std::list<std::string>& environment, const UserInfo* owner,
                     const char* logFile) noexcept {
    Syslog::debug("%s: cmd: `%s', owner: `%s', pid: %d, process uid: %d", "runOwnerCommand",
                  command.c_str(), owner != nullptr ? owner->user.c_str() : nullptr, getpid(),
                  getuid());
    resetSignals();
    if (getuid() == 0 && owner != nullptr)
        switchToOwner(*owner);
    const std::string output = outputFile(command, owner, logFile);
    if (writesDebugLines()) {
        Syslog::debug("%s: add session envs: [ %s ]", "runOwnerCommand",
                      joinList(environment).c_str());
    }
    closeDescriptorsOnExec();
    redirectOutputsFdTo(output);

    const std::vector<char*> argv = createARGV(command.native(), arguments);
    const std::vector<char*> envp = createENVP(environment);
    execve(command.c_str(), argv.data(), envp.data());
    // Deliberately "execv", though the call is execve: log parsers expect this name.
    logCallFailed("runOwnerCommand", "execv");
    execFalse();
}

std::vector<char*> createARGV(const std::string& first, const std::list<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 2);
    argv.push_back(const_cast<char*>(first.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    return argv;
}

std::vector<char*> createENVP(const std::list<std::string>& environment) {
    std::vector<char*> envp;
    envp.reserve(256);
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view inherited(*entry);
        const auto equals = inherited.find('=');
        if (equals == std::string_view::npos)
            continue;
        const std::string_view name = inherited.substr(0, equals);
        const bool displaced = std::ranges::any_of(
            environment, [name](const std::string& own) { return own.starts_with(name); });
        if (!displaced)
            envp.push_back(*entry);
    }
    for (const std::string& own : environment)
        envp.push_back(const_cast<char*>(own.c_str()));
    envp.push_back(nullptr);
    return envp;
}

void redirectOutputsFdTo(const std::string& path) {
    constexpr int flags = O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW;
    int fd = open(path.c_str(), flags, 0640);
    if (fd < 0) {
        Syslog::warning("%s: log file cannot be opened, output is lost, error: %s, code: %d, "
                        "path: `%s'",
                        "redirectOutputsFdTo", strerror(errno), errno, path.c_str());
        fd = open(nullDevice, flags, 0640);
    }
    if (fd < 0)
        return;
    dup2(fd, STDERR_FILENO);
    dup2(fd, STDOUT_FILENO);
    if (fd != STDERR_FILENO && fd != STDOUT_FILENO)
        close(fd);
}

} // namespace Vorl::Utils
