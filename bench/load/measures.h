#pragma once

#include "results.h"
#include "road.h"

#include <string>

#include <sys/types.h>

namespace Bench {

/// What the load is put on: a relay, or, to compare with, nothing between client and shadow server.
struct Target {
    std::string name;
    pid_t relay; ///< 0 for none; what a relay uses is not measured then
    Road road;
};

// Each takes about half a second of one target and adds its figures: what differs over a longer
// time differs for all targets.

// One connection.
void measureBulk(const Target& target, Results& results);
void measureEcho(const Target& target, Results& results);
void measureOneWay(const Target& target, Results& results);
void measureFrames(const Target& target, Results& results);
void measureFramesOverDelayLine(const Target& target, Results& results);
void measureKeystrokeUnderLoad(const Target& target, Results& results);
void measureKeystrokeOnSlowLine(const Target& target, Results& results);
void measureFramesDuringUpload(const Target& target, Results& results);
void measureFramesDuringSlowUpload(const Target& target, Results& results);
/// Only our own relay, which ends its jobs when it is told to.
void measureEndOfStalledJob(const Target& target, Results& results);

// A hundred connections.
void measureBusy(const Target& target, Results& results);
/// Takes a few seconds. The relay must be as it was started, or its memory says nothing.
void measureIdleAndMemory(const Target& target, Results& results);

} // namespace Bench
