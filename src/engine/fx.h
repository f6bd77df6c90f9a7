#pragma once
// CFX: the small audio processor every built-in effect derives from. It is not a component: it serves
// inside a sound, as a sampler program's send effect, in the chain of the "Multi Effect" component, and
// (as CEQ) four times in every channel strip, which is why the base lives with the engine.
//
// Output convention: the delay and the reverb add into outL/outR (their dry term adds the input once
// more); every other kind overwrites them. process never allocates; state below 1e-10 in size is set
// to 0 so that silence never runs on denormal numbers.

#include <cstdint>
#include <memory>

#include "core/object.h"

enum FXKind : int32_t {
    fxUnknown = -1,
    fxDelay = 0,
    fxReverb = 1,
    fxChorus = 2,
    fxPhaser = 3,
    fxBitcrusher = 4,
    fxFilter = 5,
    fxCompressor = 6,
};

// The kind-specific part of a saved effect: 16 little-endian words, unused ones 0.
struct FXWords {
    static constexpr int32_t count = 16;
    uint32_t word[count] = {};

    float f32(int32_t i) const;
    int32_t i32(int32_t i) const { return static_cast<int32_t>(word[i]); }
    void setF32(int32_t i, float value);
    void setI32(int32_t i, int32_t value) { word[i] = static_cast<uint32_t>(value); }
};

// One cycle of LFO phase in 131,072 steps; built once, shared by every effect.
struct LFOTables {
    static constexpr int32_t size = 131072;
    float sine[size];      // 0.5 + 0.5 sin
    float triangle[size];  // 0 -> 1 -> 0
    float saw[size];       // 0 -> 1
    static const LFOTables& get();
};

// Sets a filter or effect state to 0 when it has decayed below audibility, so silence stays cheap.
inline void flushDenormal(float& state) {
    if (state < 1e-10f && state > -1e-10f) state = 0.0f;
}

class CFX : public CObject {
public:
    // The first effect made builds the shared LFO tables, so no process call ever has to.
    explicit CFX(int32_t kind = fxUnknown);

    virtual void setSampleRate(float rate) { sampleRate = rate; }
    // Reallocates the two send input buffers; a size below 1 leaves them empty.
    virtual void setBlockSize(int32_t frames);
    virtual void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames);
    virtual void setEnabled(bool on) { enabled = on ? 1 : 0; }
    virtual void reset() {}
    // The kind's own words of the saved form, and reading them back.
    virtual void saveWords(FXWords& /*words*/) const {}
    virtual void loadWords(const FXWords& /*words*/) {}

    float dry = 1.0f;
    float wet = 1.0f;
    float tempo = 120.0f;  // set by the owner before every process
    float sampleRate = 44100.0f;
    std::unique_ptr<float[]> inputL, inputR;  // send effects: sounds add their sends here
    uint8_t enabled = 0;
};

// Makes the effect of a kind; an unknown kind gives a plain CFX of kind -1 that processes nothing.
// The effect classes live above the engine and register themselves.
using FXCreator = CFX* (*)();
void registerFXKind(int32_t kind, FXCreator creator);
CFX* createFX(int32_t kind);
