#pragma once
// CDelay: a stereo delay with cross-feed and tempo sync. It adds into its outputs (the send convention),
// so its dry term adds the input once more. Its two lines are 480,000 samples each, allocated at the
// first enable, unless a sampler lends its own pair to every delay of its programs.

#include <cstdint>
#include <memory>

#include "engine/fx.h"

class CDelay : public CFX {
  public:
    static constexpr int32_t bufferFrames = 480000;

    CDelay();

    // Without buffers nothing is added, not even the dry signal.
    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) override;
    void setEnabled(bool on) override;
    void saveWords(FXWords& words) const override;
    void loadWords(const FXWords& words) override;

    void setFeedback(float value) { feedback = value; }
    void setDelayTimeLeft(float ms) { timeLeft = ms; }
    void setDelayTimeRight(float ms) { timeRight = ms; }
    void setSync(int32_t on) { sync = on; }
    void setMulLeft(int32_t value) { mulLeft = value; }
    void setDivLeft(int32_t value) { divLeft = value; }
    void setMulRight(int32_t value) { mulRight = value; }
    void setDivRight(int32_t value) { divRight = value; }
    // The sampler's pair, bufferFrames floats each, used in place of arrays of this delay's own.
    void shareBuffers(float* left, float* right);

    float feedback = 0.5f;
    float timeLeft = 200.0f; // ms
    float timeRight = 200.0f;
    float tapOffset = 0.0f; // ms, how far the right read tap runs ahead
    int32_t sync = 1;       // 1: times from mul/div beats of the tempo, 0: from the ms fields
    float panLeft = -1.0f;
    float panRight = 1.0f;
    int32_t mulLeft = 1, divLeft = 1;
    int32_t mulRight = 1, divRight = 1;
    float cross = 0.0f;
    int32_t sharedBuffers = 0;
    float* bufL = nullptr;
    float* bufR = nullptr;
    int32_t posL = 0, posR = 0;

  private:
    // The length of one line in samples, limited to what the buffers hold.
    int32_t lineFrames(float ms, int32_t mul, int32_t div) const;

    std::unique_ptr<float[]> ownL_, ownR_;
};
