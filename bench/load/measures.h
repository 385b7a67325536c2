#pragma once

#include "results.h"
#include "road.h"

#include <sys/types.h>

namespace Bench {

/// What the measures of one target and round share.
struct Run {
    const Road& road;
    Results& results;
    pid_t relay;  ///< 0: there is none, and what a relay uses is not measured
    double scale; ///< by which the durations of the measures are multiplied
};

// One connection.
void measureBulk(const Run& run);
void measureEcho(const Run& run);
void measureOneWay(const Run& run);
void measureFrames(const Run& run);
void measureFramesOverDelayLine(const Run& run);
void measureKeystrokeUnderLoad(const Run& run);
void measureKeystrokeOnSlowLine(const Run& run);
void measureFramesDuringUpload(const Run& run);
/// Only our own relay, which ends its jobs when it is told to.
void measureEndOfStalledJob(const Run& run);

// A hundred connections.
void measureMany(const Run& run);

} // namespace Bench
