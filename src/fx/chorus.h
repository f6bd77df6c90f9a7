#pragma once
// CChorus: one modulated delay tap per channel, the right channel's LFO `phase` degrees ahead of the
// left. The tap swings between `delay` + 1 and one sample behind the write position as depth goes from
// 0 to 1. It overwrites its outputs, so it works in place.

#include <cstdint>
#include <memory>

#include "engine/fx.h"

class CChorus : public CFX {
  public:
    static constexpr int32_t bufferFrames = 65536;

    CChorus();

    // Before the first enable there are no lines, and the outputs stay as they are.
    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) override;
    void setEnabled(bool on) override;
    // Zeroes both lines.
    void reset() override;
    void saveWords(FXWords& words) const override;
    void loadWords(const FXWords& words) override;

    void setFrequency(float hz) { rate = hz; }
    void setDelay(float ms) { delay = ms; }
    void setPhase(float degrees) { phase = degrees; }
    void setFeedback(float value) { feedback = value; }

    float rate = 3.0f;   // Hz
    float delay = 20.0f; // ms
    float depth = 0.1f;  // fraction of delay
    float phase = 90.0f; // degrees between the channels
    float feedback = 0.0f;
    int32_t sync = 0;
    float wave = 0.0f; // 0 sine, 1 triangle
    int32_t mul = 1, div = 1;
    std::unique_ptr<float[]> bufL, bufR;
    int32_t writeL = 0, writeR = 0;
    double lfoPhase = 0.0; // table units

  private:
    const LFOTables& tables_;
};
