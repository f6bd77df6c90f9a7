#include "engine/click.h"

#include <cmath>

#include "engine/engine.h"

void CClick::setPhase(double ticks) {
    const double span = ticksPerClick > 0 ? ticksPerClick : 960.0;
    tickPos = ticks - std::floor(ticks / span) * span;
    samplePos = engine->sampleRate * tickPos / (engine->bpm.load(std::memory_order_relaxed) * 16.0);
}

void CClick::process(int32_t frames, float* /*scratchLeft*/, float* /*scratchRight*/) {
    if (!engine->playing.load(std::memory_order_relaxed) && !engine->recording.load(std::memory_order_relaxed))
        return;
    const double span = ticksPerClick > 0 ? ticksPerClick : 960.0;
    tickPos += ticksPerFrame(engine->bpm.load(std::memory_order_relaxed), engine->sampleRate) * frames;
    // A modulo rather than a loop of subtractions: a tempo far out of range must not stall the cycle.
    tickPos = std::isfinite(tickPos) ? std::fmod(tickPos, span) : 0.0;
    samplePos += frames * static_cast<double>(speed);
    if (countInFrames != 0) countInFrames = countInFrames > frames ? countInFrames - frames : 0;
}
