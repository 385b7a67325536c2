#include "processes.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace Bench {

namespace {

std::filesystem::path tasksDirectory(pid_t process) {
    return "/proc/" + std::to_string(process) + "/task";
}

} // namespace

std::vector<pid_t> processTree(pid_t root) {
    std::vector<pid_t> tree{root};
    for (const pid_t thread : threadsOf(root)) {
        std::ifstream children(tasksDirectory(root) / std::to_string(thread) / "children");
        for (pid_t child = 0; children >> child;) {
            const std::vector<pid_t> below = processTree(child);
            tree.insert(tree.end(), below.begin(), below.end());
        }
    }
    return tree;
}

std::vector<pid_t> threadsOf(pid_t process) {
    std::vector<pid_t> threads;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(tasksDirectory(process), ignored))
        threads.push_back(std::stoi(entry.path().filename()));
    return threads;
}

} // namespace Bench
