#pragma once
// The offline render: runs the engine's cycle without a device, as fast as the machine allows, from a
// start tick for a length in ticks, and writes the first audio output's channel to an audio file writer.

#include <cstdint>
#include <functional>

#include "engine/engine.h"
#include "files/audio_writer.h"

namespace files {

struct RenderRange {
    int32_t fromTick = 0;
    int32_t lengthTicks = 0;
};

// Called every 32768 frames and once at the end with the share done, 0..1; returning false cancels.
using RenderProgress = std::function<bool(double done)>;

struct RenderResult {
    int64_t frames = 0;   // frames written
    float peak = 0.0f;    // largest magnitude written, after clipping
    bool cancelled = false;
};

// Runs the engine at the writer's rate, then gives back its old rate and position. The frames that the
// graph's delay compensation puts in front of the song are run and dropped. Throws FileError when the
// engine has no audio output or the file cannot be written; the writer is not committed here.
RenderResult renderOffline(CQV& engine, RenderRange range, AudioWriter& writer, const RenderProgress& progress = {});

}  // namespace files
