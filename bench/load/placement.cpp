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

Place only(int processor) {
    Place result{{}, SCHED_FIFO, 1};
    CPU_SET(processor, &result.processors);
    return result;
}

Place anywhere() {
    Place result{{}, SCHED_OTHER, 0};
    for (int processor = 0; processor < CPU_SETSIZE; ++processor)
        CPU_SET(processor, &result.processors);
    return result;
}

} // namespace

Placement::Placement(pid_t toPlace) : relay(toPlace) {
    if (sysconf(_SC_NPROCESSORS_ONLN) < 2)
        return;
    place(0, only(loadProcessor));
    placeRelay(relay, only(relayProcessor));
}

Placement::~Placement() {
    place(0, anywhere());
    placeRelay(relay, anywhere());
}

} // namespace Bench
