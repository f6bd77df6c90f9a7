#pragma once
// COSCSound: the synthesised sound. Each voice runs four table sines as two carrier/modulator pairs with
// feedback, phase modulation and a ring shaper, one pair for each side of a stereo detune; a width
// control mixes the pairs, then a state-variable filter per channel, an optional tanh saturation and a
// ramped stereo gain follow.
//
// Per sample: four table lookups and no transcendental function (two tanh with distortion on); exp runs
// four times a chunk. Gains, the filter coefficient and the squared feedback and modulation depths ramp
// linearly across each chunk, at most 1/(2 pi) per millisecond, which hides the step of a value the
// editor changed.

#include <cstdint>

#include "sound/sound.h"

class COSCSound : public CSound {
public:
    COSCSound();

    void process(float* outL, float* outR, SamplerVoice& voice, int32_t frames) override;
    // Oscillator phases from `phase` and `phase2`, feedback memories cleared.
    void startVoice(SamplerVoice& voice) override;
    void setTargetBase(int32_t target, float v) override;

    float feed1 = 0.0f;  // oscillator feedback, "OscFB"
    float detune = 0.0f;
    float phase = 0.0f;  // start phase of the second oscillator
    float width = 0.0f;  // stereo width of the detuned pair
    float phaseMod = 0.0f;
    float coarse2 = 0.0f;  // modulator offset in semitones
    float phase2 = 0.0f;   // start phase of the second modulator
    float feed2 = 0.0f;    // modulator feedback, "ModFB"
    float oscRing = 0.0f;  // ring shaper of the carriers
    float modRing = 0.0f;  // ring shaper of the modulators
    int32_t pmMul = 1;
    float oscInv = 1.0f;  // 1 or -1: sign of the second carrier, "Invert"

protected:
    void saveKind(CStream& stream) const override;
    void loadKind(BlockIn& in) override;

private:
    // Renders one chunk whose targets are worked out; moves the ramps and peaks on.
    void renderChunk(float* outL, float* outR, SamplerVoice& voice, int32_t chunk, float slew, float& peakLeft,
                     float& peakRight) const;
};
