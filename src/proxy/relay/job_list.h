#pragma once

#include "common/file_descriptor.h"
#include "proxy/relay/job_transfer.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace Vorl {

/// The daemon's relay jobs. Any thread may call; one that must not be blocked by a bus call does
/// not call what waits for the lock.
///
/// Jobs are destroyed under the list's lock: once count() no longer includes a job, its shadow
/// server and files are gone as well.
class JobList {
public:
    JobList() = default;
    JobList(const JobList&) = delete;
    JobList& operator=(const JobList&) = delete;
    ~JobList() { clear(); }

    /// Starts a job and calls `confirm`, with the list locked. If `confirm` throws, the job stays
    /// in the list, its client is disconnected, and the exception is rethrown.
    /// @param client, local, transport moved into the job, unless it could not be created
    /// @param socketFile, samFile moved into the job; they stay where they are if there is none
    /// @throws std::system_error when no thread can be started
    void add(FileDescriptor& client, FileDescriptor& local, SocketFile& socketFile,
             OwnedFile& samFile, TransportHandle& transport, std::uint32_t session,
             const std::function<void(const JobTransfer&)>& confirm);

    /// The number of the session's jobs, including ended ones that have not been swept yet. Waits
    /// for the lock.
    [[nodiscard]] std::size_t count(std::uint32_t session) const;

    /// Ends the session's job with that shadow server: at once, or at the next sweep when the list
    /// is in use. Never waits for the lock: add() holds it during a bus call. Destroying the job
    /// may take the shadow server's grace period of three seconds.
    void disconnect(std::uint32_t session, std::uint32_t pid);

    /// Removes ended and disconnected jobs, with a debug line for each ended one. Never waits for
    /// the lock; destroying jobs may take a grace period of three seconds, for all together.
    /// @return the number of jobs left; std::nullopt when the list is in use: try again later
    std::optional<std::size_t> sweep();

    /// Ends all jobs; their grace periods run at the same time. Waits for the lock.
    void clear();

private:
    using Disconnect = std::pair<std::uint32_t, std::uint32_t>; // session, shadow server's pid

    // Under `mutex`.
    void removeDisconnected();
    /// Removes the wanted jobs from the list and returns them in order.
    std::list<JobTransfer> take(const std::function<bool(const JobTransfer&)>& wanted);

    mutable std::mutex mutex;    // also held while jobs are destroyed and confirmed
    std::list<JobTransfer> jobs; // under `mutex`

    std::mutex disconnectsMutex;       // may be taken under `mutex`
    std::list<Disconnect> disconnects; // to be carried out; under `disconnectsMutex`
};

} // namespace Vorl
