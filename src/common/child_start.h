#pragma once

#include "common/accounts.h"

#include <filesystem>
#include <list>
#include <string>
#include <vector>

/// What happens in a freshly forked child between fork(2) and execve(2). The pointers in the
/// vectors point into the caller's strings and into the process environment.
namespace Vorl::Utils {

/// Prepares the child and replaces it with the program: signals, account, output file,
/// descriptors, arguments, environment. Runs only in the child and never returns: what cannot be
/// started becomes /bin/false, so that the parent sees exit code 1.
///
/// @param environment NAME=value entries, put over the inherited environment by createENVP
/// @param owner the account to switch to when the process is root; null keeps the current one
/// @param logFile receives standard output and error; null chooses /dev/null, or a file in the
///                owner's directory for logs when there is an owner
[[noreturn]] void runOwnerCommand(const std::filesystem::path& command,
                                  const std::list<std::string>& arguments,
                                  const std::list<std::string>& environment, const UserInfo* owner,
                                  const char* logFile);

/// The first argument, the others in their order, and a null pointer.
[[nodiscard]] std::vector<char*> createARGV(const std::string& first,
                                            const std::list<std::string>& arguments);

/// The process environment without what the session's entries replace, then the session's entries,
/// then a null pointer. An inherited variable goes when a session entry *begins* with its name:
/// FOOBAR=1 also displaces an inherited FOO. An inherited entry without "=" goes as well.
[[nodiscard]] std::vector<char*> createENVP(const std::list<std::string>& environment);

/// Sends standard error and standard output to the file, which is created with mode 0640 or cut
/// to nothing, and never followed when it is a link. A file that cannot be opened is replaced by
/// /dev/null; if that fails too, the outputs stay as they are.
void redirectOutputsFdTo(const std::string& path);

} // namespace Vorl::Utils
