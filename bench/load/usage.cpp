#include "usage.h"

#include "processes.h"

#include <fstream>
#include <string>

namespace Bench {

namespace {

/// The number after a label of a file of /proc with a line for each value; 0 if there is none.
std::int64_t labelled(const std::string& path, const std::string& label) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(label))
            return std::stoll(line.substr(label.size()));
    }
    return 0;
}

} // namespace

Usage usageOf(pid_t relay) {
    constexpr std::int64_t kibibyte = 1024;
    Usage usage;
    for (const pid_t process : processTree(relay)) {
        const std::string directory = "/proc/" + std::to_string(process);
        usage.memory += labelled(directory + "/smaps_rollup", "Pss:") * kibibyte;
        for (const pid_t thread : threadsOf(process)) {
            const std::string task = directory + "/task/" + std::to_string(thread);
            usage.wakeUps += labelled(task + "/status", "voluntary_ctxt_switches:");
            std::int64_t ran = 0;
            std::ifstream(task + "/schedstat") >> ran;
            usage.processorTime += ran;
        }
    }
    return usage;
}

std::int64_t timeTakenByHost() {
    constexpr int fieldsBefore = 7;
    std::ifstream file("/proc/stat");
    std::string skipped;
    for (int field = 0; field <= fieldsBefore; ++field) // and the line's label
        file >> skipped;
    std::int64_t taken = 0;
    file >> taken;
    return taken;
}

} // namespace Bench
