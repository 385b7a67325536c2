#include "common/child_process.h"

#include "common/accounts.h"
#include "common/call_failure.h"
#include "common/child_start.h"
#include "common/error.h"
#include "logger"

#include <cerrno>
#include <csignal>
#include <system_error>

#include <sys/wait.h>
#include <unistd.h>

namespace Vorl::Utils {

namespace {

/// Holds SIGTERM back in this thread. A child inherits the daemon's handler, which would swallow
/// it, until it has reset its signals.
class HoldTermination {
public:
    HoldTermination() {
        sigset_t termination;
        sigemptyset(&termination);
        sigaddset(&termination, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &termination, &before);
    }
    HoldTermination(const HoldTermination&) = delete;
    HoldTermination& operator=(const HoldTermination&) = delete;
    ~HoldTermination() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

private:
    sigset_t before{};
};

/// waitpid(2), again when a signal interrupts it.
pid_t reap(int pid, int& status) {
    pid_t result = 0;
    do {
        result = waitpid(pid, &status, 0);
    } while (result < 0 && errno == EINTR);
    return result;
}

int asyncWaitPid(int pid) {
    Syslog::debug("%s: added task, pid: %d", "asyncWaitPid", pid);
    int status = -1;
    if (reap(pid, status) < 0 && errno != ECHILD)
        logCallFailed("asyncWaitPid", "waitpid");
    return status;
}

} // namespace

int runChildProcess(const std::filesystem::path& command, const std::list<std::string>& arguments,
                    const std::list<std::string>& environment, const char* owner,
                    const char* logFile) {
    std::error_code ignored;
    if (!std::filesystem::exists(std::filesystem::status(command, ignored))) {
        Syslog::error("%s: program not found: %s", "runChildProcess", command.c_str());
        throw vorl_error("runChildProcess");
    }
    const auto account = owner != nullptr ? getUserInfo(owner, true) : nullptr;

    const HoldTermination untilSignalsAreReset;
    const int pid = fork();
    if (pid < 0) {
        logCallFailed("runChildProcess", "fork");
        throw vorl_error("runChildProcess");
    }
    if (pid == 0) {
        Syslog::syslogChildOpen();
        runOwnerCommand(command, arguments, environment, account.get(), logFile);
    }
    return pid;
}

ChildHandle runChildProcessBack(const std::filesystem::path& command,
                                const std::list<std::string>& arguments,
                                const std::list<std::string>& environment, const char* owner,
                                const char* logFile) {
    const int pid = runChildProcess(command, arguments, environment, owner, logFile);
    // Deliberately the default policy: it falls back to a deferred task if no thread can be
    // created.
    return {pid, std::async(asyncWaitPid, pid)};
}

bool runChildProcessWait(const std::filesystem::path& command,
                         const std::list<std::string>& arguments,
                         const std::list<std::string>& environment, const char* owner,
                         const char* logFile) {
    // Deliberately not this function's name: existing journal queries look for this one.
    constexpr const char* failureName = "sessionNotification";
    try {
        const int pid = runChildProcess(command, arguments, environment, owner, logFile);
        Syslog::debug("%s: child started, pid %d", "runChildProcessWait", pid);
        int status = -1;
        reap(pid, status);
        syslogWaitStatus(status, "runChildProcessWait", pid);
        return true;
    } catch (const std::system_error& failure) {
        Syslog::error("%s: system error: %s", failureName, failure.what());
    } catch (const std::exception& failure) {
        Syslog::error("%s: exception: %s", failureName, failure.what());
    }
    return false;
}

bool processRunning(int pid) {
    return pid >= 1 && kill(pid, 0) == 0;
}

void syslogWaitStatus(int status, const char* caller, int pid) {
    const int ending = status & 0x7f;
    if (ending == 0) {
        Syslog::debug("%s: child ended, pid: %d, exit code: %d", caller, pid, (status >> 8) & 0xff);
    } else if (ending == 0x7f) { // stopped or continued
        Syslog::debug("%s: child ended, pid: %d, status: %d", caller, pid, status);
    } else {
        Syslog::debug("%s: child ended, pid: %d, killed by signal: %d", caller, pid, ending);
    }
}

} // namespace Vorl::Utils
