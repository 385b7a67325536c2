#include "placement.h"

#include "processes.h"

#include <sched.h>
#include <unistd.h>

namespace Bench {

namespace {

constexpr int loadProcessor = 0;
constexpr int relayProcessor = 1;

struct Place {
    cpu_set_t processors;
    int policy;
    int priority;
};

/// Failures do not matter: the thread may have ended.
void place(pid_t thread, const Place& where) {
    (void)sched_setaffinity(thread, sizeof where.processors, &where.processors);
    const sched_param parameter{where.priority};
    (void)sched_setscheduler(thread, where.policy, &parameter);
}

void placeRelay(pid_t relay, const Place& where) {
    if (relay == 0)
        return;
    for (const pid_t process : processTree(relay)) {
        for (const pid_t thread : threadsOf(process))
            place(thread, where);
    }
}

cpu_set_t only(int processor) {
    cpu_set_t result;
    CPU_ZERO(&result);
    CPU_SET(processor, &result);
    return result;
}

cpu_set_t all() {
    cpu_set_t result;
    CPU_ZERO(&result);
    for (int processor = 0; processor < CPU_SETSIZE; ++processor)
        CPU_SET(processor, &result);
    return result;
}

/// Keeps a processor from halting, at a priority that gives way to everything. A virtual processor
/// that has halted comes back when its host has time for it, and the figures would be the host's.
std::jthread keepAwake(int processor) {
    return std::jthread([processor](const std::stop_token& stop) {
        place(0, {only(processor), SCHED_IDLE, 0});
        while (!stop.stop_requested()) {
        }
    });
}

} // namespace

Placement::Placement(pid_t toPlace, Processors processors) : relay(toPlace) {
    const bool apart = processors == Processors::apart && sysconf(_SC_NPROCESSORS_ONLN) > 1;
    if (apart) {
        for (const int processor : {loadProcessor, relayProcessor})
            awake.push_back(keepAwake(processor));
    }
    place(0, {apart ? only(loadProcessor) : all(), SCHED_FIFO, 1});
    placeRelay(relay, {apart ? only(relayProcessor) : all(), SCHED_FIFO, 1});
}

Placement::~Placement() {
    const Place usual{all(), SCHED_OTHER, 0};
    place(0, usual);
    placeRelay(relay, usual);
}

} // namespace Bench
