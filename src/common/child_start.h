#pragma once

#include "common/accounts.h"

#include <filesystem>
#include <list>
#include <string>
#include <vector>

/// The steps of a forked child between fork(2) and execve(2). The pointers in the returned vectors
/// point into the caller's strings and into the process environment.
namespace Vorl::Utils {

/// Sets the child's signals (SIGTERM must be blocked, and no longer is), account, output file and
/// descriptors, then executes the program. Call it only in the child; it never returns, and an
/// exception ends the child: it must not unwind into what the child has inherited. If the program
/// cannot be executed, the child executes /bin/false, so that the parent sees exit code 1.
///
/// @param environment NAME=value entries that override the inherited environment, see createENVP
/// @param owner the account to switch to when the process is root; null keeps the current one
/// @param logFile receives standard output and error; null means /dev/null, or a file in the
///                owner's log directory if there is an owner
[[noreturn]] void runOwnerCommand(const std::filesystem::path& command,
                                  const std::list<std::string>& arguments,
                                  const std::list<std::string>& environment, const UserInfo* owner,
                                  const char* logFile) noexcept;

/// The first argument, the others in order, and a null pointer.
[[nodiscard]] std::vector<char*> createARGV(const std::string& first,
                                            const std::list<std::string>& arguments);

/// The inherited variables that no session entry overrides, then the session's entries, then a null
/// pointer. Deliberately, an inherited variable is dropped when a session entry *begins* with its
/// name: FOOBAR=1 also drops an inherited FOO. An inherited entry without "=" is dropped as well.
[[nodiscard]] std::vector<char*> createENVP(const std::list<std::string>& environment);

/// Redirects standard output and standard error to the file, which is created with mode 0640 or
/// truncated. A symbolic link is not followed. If the file cannot be opened, /dev/null is used
/// instead, with a warning; if that fails too, the outputs stay unchanged.
void redirectOutputsFdTo(const std::string& path);

} // namespace Vorl::Utils
