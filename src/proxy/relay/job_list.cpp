#include "proxy/relay/job_list.h"

#include "logger"

#include <algorithm>
#include <iterator>

namespace Vorl {

namespace {

/// Tells all jobs to end, before the first one is waited for.
void stopAll(std::list<JobTransfer>& jobs) {
    for (JobTransfer& job : jobs)
        job.stop();
}

} // namespace

void JobList::add(FileDescriptor& client, FileDescriptor& local, SocketFile& socketFile,
                  OwnedFile& samFile, TransportHandle& transport, std::uint32_t session,
                  const std::function<void(const JobTransfer&)>& confirm) {
    const std::scoped_lock lock(mutex);
    JobTransfer& job = jobs.emplace_back(client.get(), local.get(), std::move(socketFile),
                                         std::move(samFile), std::move(transport), session);
    (void)client.release();
    (void)local.release();
    try {
        confirm(job);
    } catch (...) {
        // The session service has not confirmed the connection: the client is disconnected, and the
        // job stays until its relay ends or the session service disconnects the session. Still
        // under the lock: otherwise the job could be swept, and its descriptor's number reused,
        // meanwhile.
        job.dropClient();
        throw;
    }
}

std::size_t JobList::count(std::uint32_t session) const {
    const std::scoped_lock lock(mutex);
    return static_cast<std::size_t>(std::ranges::count(jobs, session, &JobTransfer::session));
}

void JobList::disconnect(std::uint32_t session, std::uint32_t pid) {
    {
        const std::scoped_lock lock(disconnectsMutex);
        disconnects.emplace_back(session, pid);
    }
    if (const std::unique_lock lock(mutex, std::try_to_lock); lock)
        removeDisconnected();
}

std::optional<std::size_t> JobList::sweep() {
    const std::unique_lock lock(mutex, std::try_to_lock);
    if (!lock)
        return std::nullopt;
    removeDisconnected();
    std::list<JobTransfer> ended = take([](const JobTransfer& job) { return !job.isRunning(); });
    // Deliberately the name of the task that usually sweeps: log parsers expect it.
    for (const JobTransfer& job : ended)
        Syslog::debug("%s: remove job, session id: %u", "PeriodicTask", job.session());
    stopAll(ended);
    return jobs.size();
}

void JobList::clear() {
    const std::scoped_lock lock(mutex);
    stopAll(jobs);
    jobs.clear();
}

void JobList::removeDisconnected() {
    std::list<Disconnect> noted;
    {
        const std::scoped_lock lock(disconnectsMutex);
        noted.swap(disconnects);
    }
    std::list<JobTransfer> disconnected = take([&noted](const JobTransfer& job) {
        return std::ranges::count(noted, Disconnect(job.session(), job.transportPid())) > 0;
    });
    stopAll(disconnected);
}

std::list<JobTransfer> JobList::take(const std::function<bool(const JobTransfer&)>& wanted) {
    std::list<JobTransfer> taken;
    for (auto job = jobs.begin(); job != jobs.end();) {
        const auto next = std::next(job);
        if (wanted(*job))
            taken.splice(taken.end(), jobs, job);
        job = next;
    }
    return taken;
}

} // namespace Vorl
