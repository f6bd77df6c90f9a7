#include "engine/terminal.h"

#include <algorithm>
#include <cmath>

#include "engine/comp.h"

void StereoBuffer::allocate(int32_t frames) {
    frames = std::clamp(frames, 1, maxBlockFrames);
    storage_ = std::make_unique<float[]>(static_cast<size_t>(frames) * 2);
    left = storage_.get();
    right = left + frames;
    frames_ = frames;
}

void StereoBuffer::clear(int32_t frames) {
    if (!left) return;
    frames = std::min(frames, frames_);
    std::fill_n(left, frames, 0.0f);
    std::fill_n(right, frames, 0.0f);
}

COutputChannel::COutputChannel(CComp* owner, int32_t channels)
    : CIO(owner, 16, 2),
      channels(channels),
      delayLeft(std::make_unique<float[]>(maxBlockFrames)),
      delayRight(std::make_unique<float[]>(maxBlockFrames)) {
    for (CSend*& send : sends) send = new CSend(this);
}

COutputChannel::~COutputChannel() {
    inserts.deleteAll();
    for (CSend* send : sends) delete send;
}

bool COutputChannel::ownsSend(const void* target) const {
    return std::any_of(std::begin(sends), std::end(sends), [target](const CSend* s) { return s == target; });
}

void COutputChannel::applyParamEvent(void* target, int32_t param, float value) {
    if (target != this && param == 0) static_cast<CSend*>(target)->level.store(value, std::memory_order_relaxed);
}

namespace {

void raiseMeter(Meter& peak, Meter& hold, float level) {
    if (level > hold.load(std::memory_order_relaxed)) hold.store(level, std::memory_order_relaxed);
    float shown = std::max(peak.load(std::memory_order_relaxed), std::min(level, 1.0f));
    peak.store(shown, std::memory_order_relaxed);
}

float peakOf(const float* samples, int32_t frames) {
    float peak = 0.0f;
    for (int32_t i = 0; i < frames; ++i) peak = std::max(peak, std::fabs(samples[i]));
    return peak;
}

}  // namespace

void COutputChannel::runStripPiece(int32_t offset, int32_t frames) {
    if (!buffer.left) return;
    raiseMeter(peakLeft, holdLeft, peakOf(buffer.left + offset, frames));
    raiseMeter(peakRight, holdRight, peakOf(buffer.right + offset, frames));
}

void COutputChannel::zeroDelayRings() {
    std::fill_n(delayLeft.get(), maxBlockFrames, 0.0f);
    std::fill_n(delayRight.get(), maxBlockFrames, 0.0f);
}
