#pragma once

#include <vector>

#include <sys/types.h>

namespace Bench {

/// A process and what it has forked, itself first. Those that end meanwhile may be missing.
[[nodiscard]] std::vector<pid_t> processTree(pid_t root);

/// The threads of the one process; none when it has ended.
[[nodiscard]] std::vector<pid_t> threadsOf(pid_t process);

} // namespace Bench
