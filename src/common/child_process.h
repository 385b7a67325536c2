#pragma once

#include <filesystem>
#include <future>
#include <list>
#include <string>
#include <utility>

/// External programs as child processes. Any thread may call.
namespace Vorl::Utils {

/// A child's process id, and the future of its waitpid(2) status (-1 when waiting failed), which is
/// ready once the child has been reaped. Destroying the future blocks until then.
using ChildHandle = std::pair<int, std::future<int>>;

/// Forks and starts the program (see runOwnerCommand for what the child does).
///
/// @param command the program's path, not searched in PATH; also the child's argv[0]
/// @param environment NAME=value entries that override the inherited environment
/// @param owner account to run under, looked up before the fork; null, or an unknown name, keeps
///              the current account
/// @param logFile receives standard output and error; may be null
/// @return the child's process id; the caller must reap the child
/// @throws vorl_error("runChildProcess") after an error line when there is no such program or
///         fork(2) fails
[[nodiscard]] int runChildProcess(const std::filesystem::path& command,
                                  const std::list<std::string>& arguments,
                                  const std::list<std::string>& environment,
                                  const char* owner = nullptr, const char* logFile = nullptr);

/// Like runChildProcess, but a new thread waits for the child. If no thread can be created, the
/// child is reaped by the first wait() or get() of the future.
[[nodiscard]] ChildHandle runChildProcessBack(const std::filesystem::path& command,
                                              const std::list<std::string>& arguments,
                                              const std::list<std::string>& environment,
                                              const char* owner = nullptr,
                                              const char* logFile = nullptr);

/// Like runChildProcess, but waits until the child has exited, and logs its status.
/// @return false after an error line when an exception was thrown
bool runChildProcessWait(const std::filesystem::path& command,
                         const std::list<std::string>& arguments,
                         const std::list<std::string>& environment, const char* owner = nullptr,
                         const char* logFile = nullptr);

/// Whether a signal can be sent to the process: also true for one that has exited but was not
/// reaped, and false for one that we may not signal.
[[nodiscard]] bool processRunning(int pid);

/// Logs the waitpid(2) status of a child that has exited, as one debug line.
/// @param caller the function name at the start of the line
void syslogWaitStatus(int status, const char* caller, int pid);

} // namespace Vorl::Utils
