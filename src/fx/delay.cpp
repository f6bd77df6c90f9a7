#include "fx/delay.h"

#include <cmath>

namespace {

// The right tap's lead in whole samples, brought into 0..length-1 by a floor modulo whatever its sign
// or size, so that the tap always stays inside the line.
int32_t tapLead(float sampleRate, float tapOffsetMs, int32_t length) {
    const double lead = std::trunc(static_cast<double>(sampleRate) * tapOffsetMs * 0.001);
    if (!std::isfinite(lead)) return 0;
    const double rest = std::fmod(lead, length);
    return static_cast<int32_t>(rest < 0.0 ? rest + length : rest);
}

} // namespace

CDelay::CDelay() : CFX(fxDelay) {
    setName("Delay");
    dry = 1.0f;
    wet = 0.5f;
}

void CDelay::setEnabled(bool on) {
    CFX::setEnabled(on);
    if (!on || sharedBuffers != 0 || ownL_) return;
    ownL_ = std::make_unique<float[]>(bufferFrames);
    ownR_ = std::make_unique<float[]>(bufferFrames);
    bufL = ownL_.get();
    bufR = ownR_.get();
}

void CDelay::shareBuffers(float* left, float* right) {
    sharedBuffers = 1;
    bufL = left;
    bufR = right;
    ownL_.reset();
    ownR_.reset();
}

int32_t CDelay::lineFrames(float ms, int32_t mul, int32_t div) const {
    double frames;
    if (sync != 0) {
        const double beats = mul != 0 ? mul : 1;
        const double perBeat = div != 0 ? div : 1;
        frames = beats * sampleRate * 60.0 / (perBeat * tempo);
    } else {
        frames = static_cast<double>(sampleRate) * ms * 0.001;
    }
    // A synced time has no limit of its own; a line longer than the buffer (or no tempo) plays the
    // longest time there is, and a line always holds at least one sample.
    if (!(frames >= 1.0)) return 1;
    if (frames >= bufferFrames) return bufferFrames;
    return static_cast<int32_t>(frames);
}

void CDelay::process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) {
    if (bufL == nullptr || bufR == nullptr) return;
    const int32_t dL = lineFrames(timeLeft, mulLeft, divLeft);
    const int32_t dR = lineFrames(timeRight, mulRight, divRight);
    // A time made shorter while the write position is beyond it starts the line over.
    if (posL >= dL) posL = 0;
    if (posR >= dR) posR = 0;
    const int32_t off = tapLead(sampleRate, tapOffset, dR);
    const float pl = (panLeft + 1.0f) * 0.5f;
    const float pr = (panRight + 1.0f) * 0.5f;
    const float c = cross;
    const float ic = 1.0f - cross;

    for (int32_t i = 0; i < frames; ++i) {
        const float xl = inL[i];
        const float xr = inR[i];

        const float l = bufL[posL];
        const float tl = l * wet;
        float cellL = (c * bufR[posR] + xl + l * ic) * feedback;
        flushDenormal(cellL);
        bufL[posL] = cellL;
        if (++posL == dL) posL = 0;

        int32_t tap = posR + off;
        if (tap >= dR) tap -= dR;
        const float tr = bufR[tap] * wet;
        float cellR = (ic * bufR[posR] + ic * xr + c * l) * feedback;
        flushDenormal(cellR);
        bufR[posR] = cellR;
        if (++posR == dR) posR = 0;

        outL[i] += (1.0f - pr) * tr + (1.0f - pl) * tl + xl * dry;
        outR[i] += pr * tr + pl * tl + xr * dry;
    }
}

void CDelay::saveWords(FXWords& words) const {
    words.setF32(0, feedback);
    words.setI32(1, sync);
    words.setI32(2, mulLeft);
    words.setI32(3, divLeft);
    words.setI32(4, mulRight);
    words.setI32(5, divRight);
    words.setF32(6, timeLeft);
    words.setF32(7, timeRight);
    words.setF32(8, cross);
}

void CDelay::loadWords(const FXWords& words) {
    feedback = words.f32(0);
    sync = words.i32(1);
    mulLeft = words.i32(2);
    divLeft = words.i32(3);
    mulRight = words.i32(4);
    divRight = words.i32(5);
    timeLeft = words.f32(6);
    timeRight = words.f32(7);
    cross = words.f32(8);
}
