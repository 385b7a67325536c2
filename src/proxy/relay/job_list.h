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

/// The daemon's relay jobs. Any thread may call.
///
/// Jobs are destroyed under the list's lock: whoever counts them afterwards knows that the shadow
/// servers and files of those that are gone are gone as well.
class JobList {
public:
    JobList() = default;
    JobList(const JobList&) = delete;
    JobList& operator=(const JobList&) = delete;
    /// Ends all jobs; their graces run at the same time.
    ~JobList();

    /// Starts a job and has it confirmed, with the list locked. When `confirm` throws, the job
    /// stays in the list, its client is dropped, and the exception passes on.
    /// @param client, local, transport as the constructor of JobTransfer takes them; empty
    ///        afterwards, unless the job could not be created
    /// @throws std::system_error when no thread can be started
    void add(FileDescriptor& client, FileDescriptor& local, const std::string& socketPath,
             const std::string& samPath, TransportHandle& transport, std::uint32_t session,
             const std::function<void(const JobTransfer&)>& confirm);

    /// The number of the session's jobs, ended ones that were not swept yet included. Waits for
    /// the lock.
    [[nodiscard]] std::size_t count(std::uint32_t session) const;

    /// Ends the session's job with that shadow server: at once, or at the next sweep when the list
    /// is in use. Never waits for the lock: add() holds it during a bus call.
    void disconnect(std::uint32_t session, std::uint32_t pid);

    /// Removes ended and disconnected jobs, with a debug line for each ended one. Never waits for
    /// the lock.
    /// @return the number of jobs left; nothing when the list is in use: try again later
    std::optional<std::size_t> sweep();

private:
    using Disconnect = std::pair<std::uint32_t, std::uint32_t>; // session, shadow server's pid

    // Under `mutex`.
    void removeDisconnected();
    /// Takes the wanted jobs out of the list, in their order.
    std::list<JobTransfer> take(const std::function<bool(const JobTransfer&)>& wanted);

    mutable std::mutex mutex;    // held while jobs are destroyed, and while a new one is confirmed
    std::list<JobTransfer> jobs; // under `mutex`

    std::mutex disconnectsMutex;       // may be taken under `mutex`
    std::list<Disconnect> disconnects; // to be carried out; under `disconnectsMutex`
};

} // namespace Vorl
