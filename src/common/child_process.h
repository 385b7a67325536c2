#pragma once

#include <filesystem>
#include <future>
#include <list>
#include <string>
#include <utility>

/// External programs as child processes. Any thread may call.
namespace Vorl::Utils {

/// A child's process id, and the status word that waitpid(2) gave for it once it has been reaped
/// (-1 when waiting failed). Letting go of the future waits until then.
using ChildHandle = std::pair<int, std::future<int>>;

/// Forks and starts the program (see runOwnerCommand for what the child does).
///
/// @param command used as it is, without a search along PATH; also the child's first argument
/// @param environment NAME=value entries that are put over the inherited environment
/// @param owner account to run under, looked up before the fork; null, or an unknown name, keeps
///              the current account
/// @param logFile receives standard output and error; may be null
/// @return the child's process id, which the caller has to reap
/// @throws vorl_error("runChildProcess") after an error line when there is no such program or
///         fork(2) fails
[[nodiscard]] int runChildProcess(const std::filesystem::path& command,
                                  const std::list<std::string>& arguments,
                                  const std::list<std::string>& environment,
                                  const char* owner = nullptr, const char* logFile = nullptr);

/// As runChildProcess, with a thread of its own that waits for the child. If no thread can be had,
/// the child is reaped when the future is first waited on.
[[nodiscard]] ChildHandle runChildProcessBack(const std::filesystem::path& command,
                                              const std::list<std::string>& arguments,
                                              const std::list<std::string>& environment,
                                              const char* owner = nullptr,
                                              const char* logFile = nullptr);

/// As runChildProcess, and waits until the child has ended, with its status in the log.
/// @return false after an error line when an exception ended it
bool runChildProcessWait(const std::filesystem::path& command,
                         const std::list<std::string>& arguments,
                         const std::list<std::string>& environment, const char* owner = nullptr,
                         const char* logFile = nullptr);

/// Whether a signal could be sent to the process: also true for one that has ended but was not
/// reaped, and false for one that we may not signal.
[[nodiscard]] bool processRunning(int pid);

/// One debug line for the status word of a child that ended.
/// @param caller the name at the front of the line
void syslogWaitStatus(int status, const char* caller, int pid);

} // namespace Vorl::Utils
