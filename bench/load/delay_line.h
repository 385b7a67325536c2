#pragma once

#include "common/file_descriptor.h"

#include <thread>

namespace Bench {

/// A link with a round trip of 20 ms to a network namespace that only this process knows, and, if
/// asked for, with a rate at which it carries packets there.
///
/// Two TUN devices, one here and one there, and a thread that hands each packet over 10 ms after it
/// came: what netem does where the kernel has it. TCP runs end to end across it, so that what waits
/// for an acknowledgement waits as long as on a real link. Needs CAP_NET_ADMIN and CAP_SYS_ADMIN.
class DelayLine {
public:
    /// @param bytesPerSecond towards the far end; more than a short queue of packets is dropped.
    ///                       0: as fast as this machine can
    explicit DelayLine(double bytesPerSecond = 0);
    ~DelayLine();
    DelayLine(const DelayLine&) = delete;
    DelayLine& operator=(const DelayLine&) = delete;

    /// A TCP socket whose home is the far end.
    [[nodiscard]] Vorl::FileDescriptor farSocket() const;

    /// This side's address as the far end sees it.
    static constexpr const char* nearAddress = "198.18.0.1";

private:
    void carry(const std::stop_token& stop, double bytesPerSecond) const;

    Vorl::FileDescriptor nearTun;
    Vorl::FileDescriptor farTun;
    Vorl::FileDescriptor farNamespace;
    std::jthread carrier;
};

} // namespace Bench
