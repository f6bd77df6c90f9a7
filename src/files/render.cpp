#include "files/render.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <vector>

#include "engine/io.h"

namespace files {

namespace {

constexpr int64_t progressFrames = 32768;

const COutputChannel* firstAudioOut(const CQV& engine) {
    for (CComp* comp : engine.comps)
        if (auto* out = dynamic_cast<CAudioOut*>(comp)) return out->firstOutputChannel();
    return nullptr;
}

// Puts the engine's rate and position back however the render ends.
class EngineState {
public:
    explicit EngineState(CQV& engine) : engine_(engine), rate_(engine.sampleRate), position_(engine.position.load(std::memory_order_relaxed)) {}
    ~EngineState() {
        engine_.stop();
        engine_.setSampleRate(rate_);
        engine_.setPosition(position_);
    }
    EngineState(const EngineState&) = delete;
    EngineState& operator=(const EngineState&) = delete;

private:
    CQV& engine_;
    double rate_;
    double position_;
};

}  // namespace

RenderResult renderOffline(CQV& engine, RenderRange range, AudioWriter& writer, const RenderProgress& progress) {
    RenderResult result;
    const COutputChannel* channel = firstAudioOut(engine);
    if (!channel) throw FileError("nothing to render: the song has no audio output");
    if (range.lengthTicks < 1) return result;

    EngineState restore(engine);
    const double rate = writer.format().rate;
    engine.setSampleRate(rate);
    // The delay compensation is worked out at the head of a cycle; one frame with the transport stopped
    // brings it up to date for a graph that has not run yet, so the frames to drop are this graph's.
    if (!engine.playing.load(std::memory_order_relaxed) && !engine.runCycle(1))
        throw FileError("the engine is held by another job and cannot render");
    engine.setPosition(range.fromTick);
    engine.start();
    int64_t skip = engine.groupMaxLatency + engine.mainMaxLatency;

    const int32_t block = engine.blockSize;
    std::vector<float> left(static_cast<size_t>(block)), right(static_cast<size_t>(block));
    double ticksLeft = range.lengthTicks;
    int64_t sinceProgress = 0;
    while (ticksLeft >= 1.0) {
        const double bpm = engine.bpm.load(std::memory_order_relaxed);
        // Truncated, with a millionth of a frame of slack: the running tick count drifts by rounding, and
        // a length of whole frames must not lose its last one.
        int64_t n = static_cast<int64_t>(rate * ticksLeft / (bpm * 16.0) + 1e-6);
        n = std::clamp<int64_t>(n, 1, block);
        if (skip > 0) n = std::min(n, skip);
        const auto frames = static_cast<int32_t>(n);
        if (!engine.runCycle(frames)) throw FileError("the engine is held by another job and cannot render");
        if (skip > 0) {
            skip -= n;
            continue;
        }
        // The peak as a running maximum of magnitude bits, which vectorises; a NaN counts as silence.
        uint32_t peak = magnitudeBits(result.peak);
        for (int32_t i = 0; i < frames; ++i) {
            const auto bounded = [](float x) { return std::isnan(x) ? 0.0f : std::clamp(x, -1.0f, 1.0f); };
            left[static_cast<size_t>(i)] = bounded(channel->left()[i]);
            right[static_cast<size_t>(i)] = bounded(channel->right()[i]);
            peak = std::max({peak, magnitudeBits(left[static_cast<size_t>(i)]), magnitudeBits(right[static_cast<size_t>(i)])});
        }
        result.peak = std::bit_cast<float>(peak);
        writer.write(left.data(), right.data(), frames);
        result.frames += n;
        ticksLeft -= n * engine.bpm.load(std::memory_order_relaxed) * 16.0 / rate;
        sinceProgress += n;
        if (sinceProgress >= progressFrames) {
            sinceProgress = 0;
            if (progress && !progress(1.0 - ticksLeft / range.lengthTicks)) {
                result.cancelled = true;
                return result;
            }
        }
    }
    if (progress) progress(1.0);
    return result;
}

}  // namespace files
