#pragma once
// SamplerVoice: one of the 64 voices a sampler shares among all its programs. A plain record: the
// sampler allocates it to a sound at note-on, the sound renders it, and it goes free when its amplitude
// envelope has released and the closing interval has run, or at once on All Notes Off.

#include <cstdint>

#include "sound/modulation.h"

class CQV;
class CSound;
class CSoundRandom;

enum VoiceState : int32_t { voiceFree = 0, voiceSounding = 1 };

// envelope[0..5], then the pitch envelope.
constexpr int32_t voiceModulators = 7;
constexpr int32_t lfoCount = 4;
static_assert(voiceModulators + lfoCount <= 32, "a voice notes its reaching modulators in 32 bits");

struct SamplerVoice {
    // Set at note-on: the engine and the sampler's buffers.
    CQV* engine = nullptr;
    float* outL = nullptr;
    float* outR = nullptr;
    float* readL = nullptr;
    float* readR = nullptr;
    float* interpScratch = nullptr;
    CSoundRandom* random = nullptr;

    uint8_t firstChunk = 0;  // the first chunk takes gains and coefficients without a ramp
    uint32_t reaching = 0;   // bit m: modulator m reaches a target; bit voiceModulators + i: LFO i does
    int32_t state = voiceFree;
    int32_t closing = 0;  // samples left of the closing interval: silent, and not to be reused
    int32_t glideLeft = 0;
    float velocity = 0.0f;  // note-on velocity / 127
    float glideStep = 0.0f;  // semitones per sample
    uint8_t group = 0;
    float pitch = 0.0f;  // note value in semitones, with glide
    float volumeScale = 1.0f, panOffset = 0.0f, cutoffScale = 1.0f;
    int32_t note = 0;
    CSound* sound = nullptr;
    uint8_t channel = 0;
    float sampleRate = 44100.0f;
    SamplerVoice* previous = nullptr;  // the latest sounding voice of the same sound at note-on

    // Ramped values: gains, the filter coefficient, the squared feedbacks and phase modulation.
    float gainL = 0.0f, gainR = 0.0f, filterF = 0.0f;
    float oscFB2 = 0.0f, modFB2 = 0.0f, pm2 = 0.0f;
    float lowL = 0.0f, bandL = 0.0f, highL = 0.0f;
    float lowR = 0.0f, bandR = 0.0f, highR = 0.0f;
    // The filter output each side reads: low, band or high state of its channel.
    float* tapL = nullptr;
    float* tapR = nullptr;

    const CMod* mods[voiceModulators] = {};
    ModState modState[voiceModulators];
    LFOState lfo[lfoCount];

    // Oscillators: two carriers and two modulators, phases and increments in cycles.
    double ph1 = 0.0, inc1 = 0.0, fb1 = 0.0;
    double ph2 = 0.0, inc2 = 0.0, fb2 = 0.0;
    double ph3 = 0.0, inc3 = 0.0, m3 = 0.0;
    double ph4 = 0.0, inc4 = 0.0, m4 = 0.0;

    // Sampled playback.
    double position = 0.0;
    double rate = 1.0;
    int32_t sampleStart = 0, sampleEnd = 0;
    float rateRatio = 1.0f;
    double pitchOffset = 0.0;  // semitones from the clip's root key the rate below was worked out for
    double pitchRate = 1.0;
};
