#include "sound/wav_sound.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "core/block_in.h"
#include "core/stream.h"
#include "sound/sampler.h"
#include "sound/voice_dsp.h"

using namespace voicedsp;

namespace {

// The name a clip gives its sound: the file name after the last separator, extension included.
CString clipName(const CSampleClip& clip) {
    const char* text = clip.path.c_str();
    const char* name = text;
    for (const char* c = text; *c; ++c)
        if (*c == '/' || *c == '\\') name = c + 1;
    return name;
}

}  // namespace

CWavSound::CWavSound() : CSound(soundSampled) { name = "sample"; }

bool CWavSound::canPlay() const { return sample[0] && sample[0]->valid; }

void CWavSound::setSample(CSampleClip* clip) {
    sample[0] = clip;
    zones = std::max(zones, 1);
    if (clip) name = clipName(*clip);
}

void CWavSound::startVoice(SamplerVoice& voice) {
    const CSampleClip* clip = sample[0];
    voice.sampleStart = clip ? clip->start : 0;
    voice.sampleEnd = clip ? clip->end : 0;
    voice.position = voice.sampleStart;
    voice.rate = 1.0;
    voice.rateRatio = clip && voice.sampleRate > 0.0f ? clip->sampleRate / voice.sampleRate : 1.0f;
}

void CWavSound::process(float* outL, float* outR, SamplerVoice& voice, int32_t frames) {
    if (voice.closing > 0) {
        voice.closing -= frames;
        if (voice.closing <= 0) voice.state = voiceFree;
        return;
    }
    CSampleClip* clip = sample[0];
    if (!clip || !clip->valid) {
        voice.state = voiceFree;
        return;
    }
    const float slew = 1.0f / (voice.sampleRate * 6.2831855f * 0.001f);
    const int32_t maxChunk = std::max(1, static_cast<int32_t>(std::floor(voice.sampleRate * 0.001 + 0.5)));
    // The fastest rate whose frames of one chunk still fit the conversion scratch.
    const double maxRate =
        std::max(1.0, static_cast<double>(CSample::framesFitting(CSampler::scratchFrames, clip->channels, 1.0f)) / maxChunk);
    float peakLeft = peakL.load(std::memory_order_relaxed);
    float peakRight = peakR.load(std::memory_order_relaxed);

    int32_t offset = 0;
    while (offset < frames) {
        std::fill(std::begin(targets), std::end(targets), 0.0f);
        targets[targetPitch] = bendSemitones();
        targets[targetVolume] = voice.volumeScale * volume;
        targets[targetPan] = pan + voice.panOffset;
        targets[targetCutoff] = voice.cutoffScale * cutoff;
        targets[targetQ] = q;

        int32_t chunk = cutChunk(voice, std::min(frames - offset, maxChunk), WrapRounding::truncate);
        // Cut at the clip's end with the rate of the chunk before.
        bool last = false;
        if (std::trunc(chunk * voice.rate + voice.position) > voice.sampleEnd) {
            const double left = std::trunc((voice.sampleEnd - voice.position) / voice.rate);
            chunk = static_cast<int32_t>(std::clamp(left, 0.0, static_cast<double>(chunk)));
            last = true;
            // A loop shorter than one output frame at this rate still moves on a frame at a time.
            if (chunk == 0 && clip->loop == loopForward && clip->loopStart < voice.sampleEnd) chunk = 1;
        }
        if (chunk > 0) {
            modulate(voice, chunk);
            const int32_t diff = voice.note < 0 ? 0 : voice.note - clip->rootKey;
            const double x = (voice.pitch - static_cast<float>(voice.note)) + diff + targets[targetPitch] + coarse + fine;
            const double rate = std::exp(x * (1.0 / 12.0) * std::numbers::ln2) * voice.rateRatio;
            voice.rate = std::isfinite(rate) ? std::clamp(rate, 1e-6, maxRate) : 1.0;
            clip->readInterpolated(0, chunk, voice.readL, voice.readR, voice.position, static_cast<float>(voice.rate),
                                   voice.interpScratch, CSampler::scratchFrames, 0, 0, clip->frames);
            voice.position += chunk * voice.rate;
            renderChunk(outL + offset, outR + offset, voice, chunk, slew, peakLeft, peakRight);
        }
        offset += chunk;
        endChunk(voice, chunk);
        if (last) {
            if (clip->loop == loopForward && clip->loopStart < voice.sampleEnd) {
                voice.position = clip->loopStart;
            } else {
                voice.state = voiceFree;
                break;
            }
        }
    }

    if (voice.state == voiceSounding) flushStates(voice);
    holdL.store(std::max(holdL.load(std::memory_order_relaxed), std::min(peakLeft, 1.0f)), std::memory_order_relaxed);
    holdR.store(std::max(holdR.load(std::memory_order_relaxed), std::min(peakRight, 1.0f)), std::memory_order_relaxed);
    peakL.store(std::min(peakLeft, 1.0f), std::memory_order_relaxed);
    peakR.store(std::min(peakRight, 1.0f), std::memory_order_relaxed);
}

void CWavSound::renderChunk(float* outL, float* outR, SamplerVoice& voice, int32_t chunk, float slew, float& peakLeft,
                            float& peakRight) const {
    float gL = 0.0f, gR = 0.0f;
    panGains(targets[targetVolume], targets[targetPan], gL, gR);
    const float qClamped = std::min(targets[targetQ], 0.97f);
    const float cutoff2 = targets[targetCutoff] * targets[targetCutoff];
    if (voice.firstChunk) {
        voice.gainL = gL;
        voice.gainR = gR;
        voice.filterF = cutoff2;
    }
    const float dGainL = rampStep(gL, voice.gainL, chunk, slew);
    const float dGainR = rampStep(gR, voice.gainR, chunk, slew);
    const float dFilter = rampStep(cutoff2, voice.filterF, chunk, slew);
    const float damping = 1.0f - qClamped;
    float left[3] = {voice.lowL, voice.bandL, voice.highL};
    float right[3] = {voice.lowR, voice.bandR, voice.highR};
    const int32_t tapL = tapIndex(voice.tapL, &voice.bandL, &voice.highL);
    const int32_t tapR = tapIndex(voice.tapR, &voice.bandR, &voice.highR);
    const float* inL = voice.readL;
    const float* inR = voice.readR;

    for (int32_t i = 0; i < chunk; ++i) {
        const auto fi = static_cast<float>(i);
        const float f = voice.filterF + fi * dFilter;
        left[0] += f * left[1];
        left[2] = inL[i] - left[0] - damping * left[1];
        left[1] += left[2] * f;
        right[0] += f * right[1];
        right[2] = inR[i] - right[0] - damping * right[1];
        right[1] += right[2] * f;
        const float yL = left[tapL] * (voice.gainL + fi * dGainL);
        const float yR = right[tapR] * (voice.gainR + fi * dGainR);
        raisePeak(yL, peakLeft);
        raisePeak(yR, peakRight);
        outL[i] += yL;
        outR[i] += yR;
    }

    storeFilter(voice, left, right);
    const auto n = static_cast<float>(chunk);
    voice.gainL += n * dGainL;
    voice.gainR += n * dGainR;
    voice.filterF += n * dFilter;
    voice.firstChunk = 0;
}

void CWavSound::saveKind(CStream& stream) const {
    stream.writeU8(0);
    stream.writeU8(static_cast<uint8_t>(zones));
    for (int32_t z = 0; z < zones; ++z) {
        const CSampleClip* clip = sample[z];
        stream.writeI32(clip && pool ? pool->indexOf(clip) : -1);
        stream.writeU8(clip ? clip->rootKey : 60);
        stream.writeU8(0);
        stream.writeU8(127);
        stream.writeU8(clip ? static_cast<uint8_t>(clip->loop) : 0);
        stream.writeI32(clip ? clip->loopStart : 0);
        stream.writeI32(0);
    }
}

void CWavSound::loadKind(BlockIn& in) {
    uint8_t count = 0;
    if (!in.skip(1) || !in.u8(count)) return;
    for (int32_t z = 0; z < count; ++z) {
        int32_t index = -1, loopStart = 0;
        uint8_t root = 60, loop = 0;
        if (!in.i32(index) || !in.u8(root) || !in.skip(2) || !in.u8(loop) || !in.i32(loopStart) || !in.skip(4)) return;
        if (z >= maxZones) continue;
        CSampleClip* clip = pool && index >= 0 ? pool->getAt(index) : nullptr;
        if (clip) {
            clip->rootKey = root;
            clip->loop = loop == loopForward ? loopForward : loopOff;
            clip->loopStart = loopStart;
            if (z == 0) name = clipName(*clip);
        }
        sample[z] = clip;
        zones = z + 1;
    }
}
