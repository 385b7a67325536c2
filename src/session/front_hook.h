#pragma once

#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <systemd/sd-event.h>

namespace Vorl::Session {

/// Runs the program that tells a front whom to expect; one at a time, in the order of the events,
/// each for ten seconds at most. A failure is logged, and delays nobody. The one for HAProxy is
/// packaging/front/front-hook.
///
/// Its one argument is the event's name. Everything else is in its environment, which, unlike an
/// argument list, others cannot read: a ticket is among it.
class FrontHook {
public:
    using Facts = std::map<std::string, std::string>; ///< environment variables

    /// @param eventLoop outlives this; SIGCHLD is blocked
    explicit FrontHook(sd_event* eventLoop) : loop(eventLoop) {}
    FrontHook(const FrontHook&) = delete;
    FrontHook& operator=(const FrontHook&) = delete;
    ~FrontHook();

    /// @param program nothing happens when it is empty
    void tell(const std::filesystem::path& program, const std::string& event, const Facts& facts);
    /// Whether all has been told.
    [[nodiscard]] bool idle() const { return calls.empty(); }

private:
    struct Call {
        std::string program;
        std::string event;
        std::vector<std::string> environment;
    };

    static int childEnded(sd_event_source* source, const siginfo_t* info, void* hook);
    static int tooLong(sd_event_source* source, std::uint64_t now, void* hook);
    void next();
    void done();

    sd_event* loop;
    std::deque<Call> calls; ///< the first one runs
    pid_t child = 0;
    sd_event_source* end = nullptr;
    sd_event_source* limit = nullptr;
};

} // namespace Vorl::Session
