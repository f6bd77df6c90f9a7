#pragma once
// CReverb: a twelve-line feedback delay network with a pre-delay. Its input is mono, (L + R) / 2; the
// stereo image comes only from the signs with which the lines reach each output. Each line loses
// 60 dB over the reverb time at low frequencies and 2.4 times faster at high ones, through a one-pole
// filter behind it. A reverb whose output has been silent for two seconds goes idle: it then costs
// one pass over its input per block, and wakes within the block in which input returns. It adds into
// its outputs (the send convention).

#include <array>
#include <cstdint>
#include <memory>

#include "engine/fx.h"

// The reverb's building blocks. The virtual destructor and reset are what every block has.
class Module {
  public:
    virtual ~Module() = default;
    virtual void reset() = 0;
};

// One-pole filter, y = b x - a y; the state is set to 0 once it falls below 1e-10 in size, so that a
// decayed tail ends in exact zeros.
class MLPF1a : public Module {
  public:
    void reset() override { y = 0.0f; }
    float process(float x) {
        y = b * x - a * y;
        flushDenormal(y);
        return y;
    }

    float y = 0.0f;
    float b = 1.0f;
    float a = 0.0f;
};

// A ring of length + margin floats, written at one position and read `length` positions behind it.
// The margin leaves room for a modulated read to swing around that position.
class MDelayLine : public Module {
  public:
    static constexpr int32_t margin = 11;

    explicit MDelayLine(int32_t length);
    MDelayLine(const MDelayLine&) = delete;
    MDelayLine& operator=(const MDelayLine&) = delete;

    // The ring is only made when the owning effect is first enabled.
    void allocate();
    bool allocated() const { return buffer != nullptr; }
    // Zeroes the ring.
    void reset() override;
    void write(float x) {
        buffer[writeIndex] = x;
        if (++writeIndex == size) writeIndex = 0;
    }
    // The sample at the read position, which then moves on by one.
    float read() {
        const float x = buffer[readIndex];
        if (++readIndex == size) readIndex = 0;
        return x;
    }
    // The sample `back` positions behind the next write, 1..size: 1 is the sample just written.
    float behind(int32_t back) const {
        int32_t at = writeIndex - back;
        if (at < 0) at += size;
        return buffer[at];
    }

    const int32_t length;
    const int32_t size;
    std::unique_ptr<float[]> buffer;
    int32_t writeIndex = 0;
    int32_t readIndex;
};

// A line whose read position swings `depth` samples either side of `delay` behind the write, moved by a
// sine LFO. The interpolating read is the subclass's.
class MModDelayLine : public MDelayLine {
  public:
    MModDelayLine(int32_t delay, int32_t depth, double startPhase, double inc);

    // The next output sample; the read position and the LFO move on by one sample.
    virtual float readModulated() = 0;
    // Zeroes the ring and the interpolation memory; the LFO keeps its phase.
    void reset() override;

    float readPos; // the unmodulated read position, fractional
    const int32_t depth;
    const int32_t delay;
    double phase; // cycles, kept within 0..1
    const double inc;
    float prev = 0.0f; // last output, the all-pass interpolation's memory

  protected:
    // The modulated read position of this sample; readPos and the LFO then step on.
    float nextPosition();
    // A ring position near 0..size-1 brought into it: the swing never exceeds one ring length.
    int32_t wrap(int32_t at) const {
        if (at < 0) return at + size;
        if (at >= size) return at - size;
        return at;
    }

  private:
    const float* sine_;
};

// Modulated line with first-order all-pass interpolation, which keeps the line's spectrum flat where
// linear interpolation would dull it as the read position moves.
class MSVRAP1ModDelayLine final : public MModDelayLine {
  public:
    using MModDelayLine::MModDelayLine;
    float readModulated() override;
};

class CReverb : public CFX {
  public:
    static constexpr int32_t idle = 1;
    static constexpr int32_t running = 2;
    static constexpr int32_t lineCount = 12;
    static constexpr int32_t modulatedLines = 6;
    static constexpr int32_t preDelayFrames = 48000;

    CReverb();

    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) override;
    // The first enable makes the lines; switching off clears them, so the reverb comes back silent.
    void setEnabled(bool on) override;
    void saveWords(FXWords& words) const override;
    void loadWords(const FXWords& words) override;

    // Clamped to 0..250 ms.
    void setPreDelay(int32_t ms);
    // The float size word of stored blocks: whole seconds, at least one.
    void setSize(float ms);
    // Reverb time in ms, at least 1000. The coefficients follow the sample rate of this moment.
    void setSizeMs(int32_t ms);

    int32_t preDelay = 20;
    int32_t size = 4000;
    int32_t activity = idle;
    int32_t quietFrames = 0;
    std::array<MSVRAP1ModDelayLine, modulatedLines> modLines;
    std::array<MDelayLine, lineCount - modulatedLines> lines;
    std::array<MLPF1a, lineCount> filters;
    MDelayLine preDelayLine{preDelayFrames};

  private:
    void updateCoefficients();
    void clear();
};
