#pragma once
// CPhaser: six first-order all-pass sections per channel with feedback, their corner swept by an LFO
// between rangeMin and rangeMax; the right channel's LFO runs `phase` degrees ahead. Mixed with the dry
// signal, the all-pass chain's phase turns give the moving notches. It overwrites its outputs.

#include <array>
#include <cstdint>

#include "engine/fx.h"

class CPhaser : public CFX {
  public:
    static constexpr int32_t stages = 6; // all-pass sections per channel

    CPhaser();

    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) override;
    void saveWords(FXWords& words) const override;
    void loadWords(const FXWords& words) override;

    void setFrequency(float hz) { rate = hz; }
    void setPhase(float degrees) { phase = degrees; }
    void setRangeMin(float hz) { rangeMin = hz; }
    void setRangeMax(float hz) { rangeMax = hz; }

    float rate = 0.1f;  // Hz
    float phase = 0.0f; // degrees between the channels
    float feedback = 0.7f;
    float rangeMin = 2000.0f; // Hz
    float rangeMax = 20000.0f;
    int32_t sync = 0;
    int32_t wave = 0; // 0 sine, 1 triangle, 2 saw
    int32_t mul = 1, div = 1;
    double lfoPhase = 0.0;          // table units
    float memL = 0.0f, memR = 0.0f; // feedback memory
    std::array<float, stages> stateL{}, stateR{};

  private:
    const LFOTables& tables_;
};
