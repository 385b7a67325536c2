#pragma once

namespace Vorl::Utils {

/// Waits until the descriptor has input: data, a pending connection, or end of stream.
///
/// @param timeout milliseconds; 0 returns at once, a negative value waits without limit. A signal
///                restarts the wait with the full time.
/// @return false on timeout, for a negative descriptor, and for one that reports only a hang-up or
///         an error
/// @throws vorl_error("hasInput") after an error line when poll(2) fails
[[nodiscard]] bool hasInput(int descriptor, int timeout);

/// The number of bytes that can be read now (FIONREAD); 0 for a negative descriptor.
/// @throws vorl_error("hasData") after an error line when ioctl(2) fails
[[nodiscard]] int hasData(int descriptor);

} // namespace Vorl::Utils
