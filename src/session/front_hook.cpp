#include "session/front_hook.h"

#include "logger"

#include <csignal>
#include <cstring>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Vorl::Session {

namespace {

constexpr std::uint64_t limitUsec = 10'000'000;
constexpr std::size_t mostCalls = 1000;

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

// The service has blocked SIGCHLD, and a child inherits that.
int spawn(pid_t& child, const std::string& program, std::vector<std::string> arguments,
          std::vector<std::string> environment) {
    sigset_t none;
    posix_spawnattr_t attributes;
    sigemptyset(&none);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const int error = posix_spawn(&child, program.c_str(), nullptr, &attributes,
                                  pointers(arguments).data(), pointers(environment).data());
    posix_spawnattr_destroy(&attributes);
    return error;
}

} // namespace

FrontHook::~FrontHook() {
    sd_event_source_disable_unref(end);
    sd_event_source_disable_unref(limit);
}

void FrontHook::tell(const std::filesystem::path& program, const std::string& event,
                     const Facts& facts) {
    if (program.empty())
        return;
    if (calls.size() >= mostCalls) {
        Syslog::warning("%s: too many wait for %s, not told: %s", "FrontHook", program.c_str(),
                        event.c_str());
        return;
    }
    Call call{program, event, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}};
    for (const auto& [name, value] : facts)
        call.environment.push_back(std::string(name).append("=").append(value));
    calls.push_back(std::move(call));
    if (calls.size() == 1)
        next();
}

void FrontHook::next() {
    while (!calls.empty()) {
        const Call& call = calls.front();
        const int error = spawn(child, call.program, {call.program, call.event}, call.environment);
        if (error == 0) {
            sd_event_add_child(loop, &end, child, WEXITED, childEnded, this);
            sd_event_add_time_relative(loop, &limit, CLOCK_MONOTONIC, limitUsec, 0, tooLong, this);
            return;
        }
        Syslog::error("%s: %s cannot be run: %s", "FrontHook", call.program.c_str(),
                      strerror(error));
        calls.pop_front();
    }
}

int FrontHook::childEnded(sd_event_source*, const siginfo_t* info, void* hook) {
    auto& self = *static_cast<FrontHook*>(hook);
    if (info->si_code != CLD_EXITED || info->si_status != 0)
        Syslog::warning("%s: %s %s failed, status: %d", "FrontHook",
                        self.calls.front().program.c_str(), self.calls.front().event.c_str(),
                        info->si_status);
    self.done();
    return 0;
}

int FrontHook::tooLong(sd_event_source*, std::uint64_t, void* hook) {
    kill(static_cast<FrontHook*>(hook)->child, SIGKILL);
    return 0;
}

void FrontHook::done() {
    end = sd_event_source_disable_unref(end);
    limit = sd_event_source_disable_unref(limit);
    calls.pop_front();
    next();
}

} // namespace Vorl::Session
