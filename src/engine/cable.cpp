#include "engine/cable.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "engine/comp.h"

CCableDelay::CCableDelay()
    : ringLeft(std::make_unique<float[]>(maxBlockFrames)), ringRight(std::make_unique<float[]>(maxBlockFrames)) {}

void CCableDelay::zeroRings() {
    std::fill_n(ringLeft.get(), maxBlockFrames, 0.0f);
    std::fill_n(ringRight.get(), maxBlockFrames, 0.0f);
}

CMIDICable::CMIDICable(CComp* destination, CIO* output, CIO* input)
    : CObject(4, 1), source(output->owner), destination(destination), input(input), output(output) {}

CAudioCable::CAudioCable(CComp* destination, CIO* output, CIO* input)
    : CObject(4, 2),
      delay(std::make_unique<CCableDelay>()),
      source(output->owner),
      destination(destination),
      input(input),
      output(output) {}

namespace {

// Adds one side through the ring (or straight when there is no padding); returns the sum's peak.
float sumSide(const float* from, float* to, float* ring, int32_t position, int32_t delayFrames, int32_t frames) {
    uint32_t peak = 0;
    if (delayFrames == 0) {
        for (int32_t i = 0; i < frames; ++i) {
            to[i] += from[i];
            peak = std::max(peak, magnitudeBits(to[i]));
        }
        return std::bit_cast<float>(peak);
    }
    for (int32_t i = 0; i < frames; ++i) {
        ring[(position + i + delayFrames) & ringMask] = from[i];
        to[i] += ring[(position + i) & ringMask];
        peak = std::max(peak, magnitudeBits(to[i]));
    }
    return std::bit_cast<float>(peak);
}

void track(Meter& peak, Meter& hold, float level) {
    peak.store(level, std::memory_order_relaxed);
    if (level > hold.load(std::memory_order_relaxed)) hold.store(level, std::memory_order_relaxed);
    if (level > 1.0f) peak.store(1.0f, std::memory_order_relaxed);
}

}  // namespace

void CAudioCable::sumAtOutput(int32_t frames) {
    COutputChannel* from = outputChannel();
    CInputChannel* to = inputChannel();
    if (!from->left() || !to->left()) return;
    CCableDelay& d = *delay;
    float peakL = sumSide(from->left(), to->left(), d.ringLeft.get(), d.position, d.delayFrames, frames);
    float peakR = sumSide(from->right(), to->right(), d.ringRight.get(), d.position, d.delayFrames, frames);
    d.position = (d.position + frames) & ringMask;
    track(to->peakLeft, to->holdLeft, std::max(peakL, to->peakLeft.load(std::memory_order_relaxed)));
    track(to->peakRight, to->holdRight, std::max(peakR, to->peakRight.load(std::memory_order_relaxed)));
}
