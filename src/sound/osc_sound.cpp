#include "sound/osc_sound.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "core/stream.h"
#include "core/block_in.h"
#include "sound/tables.h"
#include "sound/voice_dsp.h"

using namespace voicedsp;

namespace {

// The ring shaper: -x at r = 0 (the plain sine, inverted), x^2 at r = 1 (the frequency doubled).
inline double ring(double r, double x) { return r * x * x + (r - 1.0) * x; }

// Cycles per sample of a pitch in semitones, where key 9 is 13.75 Hz (so key 69 is 440 Hz).
inline double increment(double semitones, double sampleRate) {
    return std::exp(semitones * (1.0 / 12.0) * std::numbers::ln2) * 13.75 / sampleRate;
}

}  // namespace

COSCSound::COSCSound() : CSound(soundOscillator) { name = "synth"; }

void COSCSound::startVoice(SamplerVoice& voice) {
    voice.ph1 = 0.0;
    voice.fb1 = 0.0;
    voice.ph2 = phase * 0.5;
    voice.fb2 = 0.0;
    voice.ph3 = 0.0;
    voice.m3 = 0.0;
    voice.ph4 = phase2 * 0.5 + phase * 0.5;
    voice.m4 = 0.0;
}

void COSCSound::setTargetBase(int32_t target, float v) {
    switch (target) {
    case targetOscFB: feed1 = v; break;
    case targetModFB: feed2 = v; break;
    case targetPhaseMod: phaseMod = v; break;
    case targetDetune: detune = v; break;
    default: CSound::setTargetBase(target, v); break;
    }
}

void COSCSound::process(float* outL, float* outR, SamplerVoice& voice, int32_t frames) {
    if (voice.closing > 0) {
        voice.closing -= frames;
        if (voice.closing <= 0) voice.state = voiceFree;
        return;
    }
    noteReaching(voice);
    const float slew = 1.0f / (voice.sampleRate * 6.2831855f * 0.001f);
    const int32_t maxChunk = std::max(1, static_cast<int32_t>(std::floor(voice.sampleRate * 0.001 + 0.5)));
    float peakLeft = peakL.load(std::memory_order_relaxed);
    float peakRight = peakR.load(std::memory_order_relaxed);

    int32_t offset = 0;
    while (offset < frames) {
        targets[targetNone] = 0.0f;
        targets[targetPitch] = bendSemitones();
        targets[targetVolume] = voice.volumeScale * volume * 0.6f;
        targets[targetPan] = pan + voice.panOffset;
        targets[targetCutoff] = voice.cutoffScale * cutoff;
        targets[targetQ] = q;
        targets[targetOscFB] = feed1;
        targets[targetModFB] = feed2;
        targets[targetPhaseMod] = phaseMod;
        targets[targetDetune] = detune * detune * 0.5f;

        const int32_t chunk = cutChunk(voice, std::min(frames - offset, maxChunk), WrapRounding::nearest);
        if (chunk > 0) {
            modulate(voice, chunk);
            renderChunk(outL + offset, outR + offset, voice, chunk, slew, peakLeft, peakRight);
        }
        offset += chunk;
        endChunk(voice, chunk);
    }

    if (voice.state == voiceSounding) flushStates(voice);
    peakL.store(peakLeft, std::memory_order_relaxed);
    peakR.store(peakRight, std::memory_order_relaxed);
}

void COSCSound::renderChunk(float* outL, float* outR, SamplerVoice& voice, int32_t chunk, float slew,
                            float& peakLeft, float& peakRight) const {
    const double rate = voice.sampleRate;
    const double p = double{voice.modState[envelopeCount].value} + targets[targetPitch] + voice.pitch - 9.0;
    const double d = targets[targetDetune];
    voice.inc1 = increment(p + d + coarse + fine, rate);
    voice.inc2 = increment(p - d + coarse + fine, rate);
    voice.inc3 = increment(p + d + coarse + coarse2 + fine, rate);
    voice.inc4 = increment(p - d + coarse + coarse2 + fine, rate);

    float gL = 0.0f, gR = 0.0f;
    panGains(targets[targetVolume], targets[targetPan], gL, gR);
    const float qClamped = std::min(targets[targetQ], 0.97f);
    const float cutoff2 = targets[targetCutoff] * targets[targetCutoff];
    const float oscFB = targets[targetOscFB] * targets[targetOscFB];
    const float modFB = targets[targetModFB] * targets[targetModFB];
    const float pmDepth = targets[targetPhaseMod] * targets[targetPhaseMod];
    if (voice.firstChunk) {
        voice.gainL = gL;
        voice.gainR = gR;
        voice.filterF = cutoff2;
        voice.oscFB2 = oscFB;
        voice.modFB2 = modFB;
        voice.pm2 = pmDepth;
    }
    const float dGainL = rampStep(gL, voice.gainL, chunk, slew);
    const float dGainR = rampStep(gR, voice.gainR, chunk, slew);
    const float dFilter = rampStep(cutoff2, voice.filterF, chunk, slew);
    const float dOscFB = rampStep(oscFB, voice.oscFB2, chunk, slew);
    const float dModFB = rampStep(modFB, voice.modFB2, chunk, slew);
    const float dPM = rampStep(pmDepth, voice.pm2, chunk, slew);

    const double* sine = SoundTables::get().sine;
    const double oscR = oscRing, modR = modRing;
    const double w = width;
    const float damping = 1.0f - qClamped;
    const bool saturate = dist != 0;
    const int32_t tapL = tapIndex(voice.tapL, &voice.bandL, &voice.highL);
    const int32_t tapR = tapIndex(voice.tapR, &voice.bandR, &voice.highR);
    double ph1 = voice.ph1, ph2 = voice.ph2, ph3 = voice.ph3, ph4 = voice.ph4;
    double fb1 = voice.fb1, fb2 = voice.fb2, m3 = voice.m3, m4 = voice.m4;
    const double inc1 = voice.inc1, inc2 = voice.inc2, inc3 = voice.inc3, inc4 = voice.inc4;
    float left[3] = {voice.lowL, voice.bandL, voice.highL};
    float right[3] = {voice.lowR, voice.bandR, voice.highR};

    for (int32_t i = 0; i < chunk; ++i) {
        const auto fi = static_cast<float>(i);
        const double f2 = (voice.modFB2 + fi * dModFB) * 0.2f;
        const double f1 = (voice.oscFB2 + fi * dOscFB) * 0.2f;
        const double pm = static_cast<float>(pmMul) * (voice.pm2 + fi * dPM);

        const double mod1 = sine[waveIndex(f2 * m3 + ph3)];
        ph3 += inc3;
        m3 = mod1;
        const double a = ring(modR, mod1) * pm;
        const double o1 = ring(oscR, sine[waveIndex(a + f1 * fb1 + ph1)]);
        ph1 += inc1;
        fb1 = o1;

        const double mod2 = sine[waveIndex(f2 * m4 + ph4)];
        ph4 += inc4;
        m4 = mod2;
        const double b = ring(modR, mod2) * pm;
        double o2 = ring(oscR, sine[waveIndex(b + f1 * fb2 + ph2)]);
        ph2 += inc2;
        fb2 = o2;
        o2 *= oscInv;

        const auto inL = static_cast<float>((w * o1 + o1 + (1.0 - w) * o2) * 0.5);
        const auto inR = static_cast<float>(((1.0 - w) * o1 + o2 + w * o2) * 0.5);

        const float f = voice.filterF + fi * dFilter;
        left[0] += f * left[1];
        left[2] = inL - left[0] - damping * left[1];
        left[1] += left[2] * f;
        right[0] += f * right[1];
        right[2] = inR - right[0] - damping * right[1];
        right[1] += right[2] * f;

        const float gainL = voice.gainL + fi * dGainL;
        const float gainR = voice.gainR + fi * dGainR;
        const float yL = saturate ? std::tanh(left[tapL]) * gainL : left[tapL] * gainL;
        const float yR = saturate ? std::tanh(right[tapR]) * gainR : right[tapR] * gainR;
        raisePeak(yL, peakLeft);
        raisePeak(yR, peakRight);
        outL[i] += yL;
        outR[i] += yR;
    }

    voice.ph1 = ph1;
    voice.ph2 = ph2;
    voice.ph3 = ph3;
    voice.ph4 = ph4;
    voice.fb1 = fb1;
    voice.fb2 = fb2;
    voice.m3 = m3;
    voice.m4 = m4;
    storeFilter(voice, left, right);
    const auto n = static_cast<float>(chunk);
    voice.gainL += n * dGainL;
    voice.gainR += n * dGainR;
    voice.filterF += n * dFilter;
    voice.oscFB2 += n * dOscFB;
    voice.modFB2 += n * dModFB;
    voice.pm2 += n * dPM;
    voice.firstChunk = 0;
}

void COSCSound::saveKind(CStream& stream) const {
    for (float value : {feed1, detune, phase, width, feed2, phaseMod, coarse2, phase2}) stream.writeF32(value);
    stream.writeI32(pmMul);
    stream.writeI32(oscInv < 0.0f ? -1 : 1);
    stream.writeF32(oscRing);
    stream.writeF32(modRing);
}

void COSCSound::loadKind(BlockIn& in) {
    for (float* value : {&feed1, &detune, &phase, &width, &feed2, &phaseMod, &coarse2, &phase2}) in.f32(*value);
    in.i32(pmMul);
    int32_t invert = 1;
    if (in.i32(invert)) oscInv = invert == -1 ? -1.0f : 1.0f;
    in.f32(oscRing);
    in.f32(modRing);
}
