#pragma once
// Modulators: the settings a sound holds (envelopes, LFOs, pitch envelope, velocity, channel pressure)
// and the running state a voice keeps for each.
//
// Modulation is worked out once per control chunk (at most 1 ms), never per sample. Every source sends
// its value m (0..1) through four routing entries to the sound's working targets: Pitch and Pan add
// (2m - 1) * amount, the others are multiplied by (m - 1) * amount + 1, so an envelope at 1.0 leaves a
// level alone and an LFO at its centre 0.5 leaves a pitch alone.
//
// Settings are plain fields the editor writes while voices read them: a changed time takes effect at
// the next segment, a changed curve or rate at the next chunk.

#include <atomic>
#include <cstdint>
#include <limits>

#include "core/object.h"

enum ModTarget : int32_t {
    targetNone = 0,  // scratch: nothing reads it
    targetPitch = 1,
    targetVolume = 2,
    targetPan = 3,
    targetCutoff = 4,
    targetQ = 5,
    targetOscFB = 6,
    targetModFB = 7,
    targetPhaseMod = 8,
    targetDetune = 9,
};
constexpr int32_t targetCount = 10;

// "Pitch", "Volume" ...; the empty name for 0 and for anything outside 0..9.
const char* targetName(int32_t index);
// Whether a target adds to its base value rather than scaling it.
constexpr bool isAdditiveTarget(int32_t index) { return index == targetPitch || index == targetPan; }

struct RoutingEntry {
    uint8_t flag = 1;  // stored and restored; the voice does not read it
    int32_t index = targetNone;
    float amount = 0.0f;
};
constexpr int32_t routingCount = 4;

// Applies one source value to the working targets through a modulator's entries. Indices outside the
// table (a damaged file) go nowhere. An amount of 0 adds 0 or scales by 1, so it is passed over: most
// entries of most sounds are unused, and this runs for every modulator of every voice each chunk.
inline bool reachesAnyTarget(const RoutingEntry (&entries)[routingCount]) {
    for (const RoutingEntry& entry : entries)
        if (entry.amount != 0.0f && entry.index >= 0 && entry.index < targetCount) return true;
    return false;
}

inline void applyRouting(const RoutingEntry (&entries)[routingCount], float m, float (&targets)[targetCount]) {
    for (const RoutingEntry& entry : entries) {
        if (entry.amount == 0.0f || entry.index < 0 || entry.index >= targetCount) continue;
        if (isAdditiveTarget(entry.index)) targets[entry.index] += (2.0f * m - 1.0f) * entry.amount;
        else targets[entry.index] *= (m - 1.0f) * entry.amount + 1.0f;
    }
}

enum ModStage : int32_t {
    stageAttack = 0,
    stageDecay = 1,
    stageSustain = 2,
    stageRelease = 3,
    stageEnded = 4,
};

// A voice's state of one envelope-like modulator.
struct ModState {
    uint8_t running = 0;  // the segment is moving
    int32_t stage = stageAttack;
    float from = 0.0f, to = 0.0f;
    float value = 0.0f;  // the output as of the end of the current chunk
    float curve = 0.0f;
    int32_t left = 0, total = 0;  // samples left of the segment, samples in it
};

// The sample rate time parameters are counted in: one for the whole program, 44,100 until a sampler is
// told the engine's rate.
void setModulationSampleRate(double rate);
double modulationSampleRate();
// A time parameter x in samples: floor(x * x * timeScale * rate * 0.001 + 0.5), limited to what a segment
// can count (a damaged setting gives the longest segment, not an overflow).
int32_t timeToSamples(float x, int32_t timeScale);

enum ModSubKind : int32_t {
    modPitchEnv = 0,
    modEnv = 1,
    modLFO = 2,
    modVel = 3,
    modCP = 4,
};

class CMod : public CObject {
public:
    CMod(int32_t subKind, int32_t id) : CObject(0, subKind), id(id) {}

    // The three steps of a segment; the LFO, velocity and pressure sources have none.
    virtual void start(ModState& /*state*/) const {}
    virtual void next(ModState& /*state*/) const {}
    virtual void release(ModState& /*state*/) const {}

    int32_t id;
    RoutingEntry params[routingCount];
};

class CEnv : public CMod {
public:
    explicit CEnv(int32_t id = 0) : CMod(modEnv, id) {}

    void start(ModState& state) const override;
    void next(ModState& state) const override;
    void release(ModState& state) const override;

    uint8_t enabled = 0;  // stored and restored; the voice does not read it
    int32_t timeScale = 5000;  // ms of a time parameter at 1.0
    float initial = 0.0f;
    float attack = 0.0f;
    float decay = 0.0f;
    float sustain = 1.0f;
    float releaseTime = 1.0f;  // "release"; exactly 1.0 on envelopes 1 to 5: no release at all
    float ac = 0.0f, dc = 0.0f, rc = 0.0f;
};

// Added to the pitch of oscillator sounds; nothing sets it, so it stays at 0 semitones.
class CPitchEnv : public CMod {
public:
    CPitchEnv() : CMod(modPitchEnv, 6) {}

    void start(ModState& state) const override;
    void next(ModState& state) const override;
    void release(ModState& state) const override;

    int32_t timeScale = 5000;
    float attackTime = 0.0f;
    float startLevel = 0.0f;
    float releaseTime = 0.0f;
    float releaseLevel = 0.0f;
    float attackCurve = 0.0f;
    float releaseCurve = 0.0f;
};

enum LFOWave : int32_t { waveSine = 0, waveTri = 1, waveSaw = 2, wavePulse = 3, waveRandom = 4 };
enum LFORestart : int32_t { restartFree = 0, restartPoly = 1, restartMono = 2 };

class CLFO : public CMod {
public:
    explicit CLFO(int32_t id = 7) : CMod(modLFO, id) {}

    // Cycles a second: rate, or with sync (div / mul) beats of the tempo. A multiplier of 0 counts as 1.
    double rateHz(double tempo) const {
        if (sync == 0) return rate;
        return static_cast<double>(div) / (mul != 0 ? mul : 1) * (tempo / 60.0);
    }

    int32_t wave = waveTri;
    float rate = 6.0f;  // Hz
    int32_t sync = 0;   // 0 "Hz", 1 "Beat"
    int32_t mul = 1;
    int32_t div = 1;
    int32_t delay = 0;    // ms
    int32_t inv = 1;      // stored and restored; the voice does not read it
    int32_t restart = restartPoly;
};

class CVel : public CMod {
public:
    CVel() : CMod(modVel, 11) {
        for (int32_t k = 0; k < routingCount; ++k) params[k].index = targetVolume + k;
    }
};

// Channel pressure never reaches a sound: the entries are only stored and restored.
class CCP : public CMod {
public:
    CCP() : CMod(modCP, 12) {}
};

// A voice's state of one LFO.
struct LFOState {
    const CLFO* lfo = nullptr;
    float value = 0.5f;
    double phase = 0.0;  // cycles
    double inc = 0.0;    // cycles per sample
    double incHz = std::numeric_limits<double>::quiet_NaN();  // the rate `inc` was worked out for
    int32_t delayLeft = 0;
    int32_t toWrap = 0;
    const double* table = nullptr;
};

// The table of a wave number; an unknown number reads as the sine.
const double* lfoTable(int32_t wave);
