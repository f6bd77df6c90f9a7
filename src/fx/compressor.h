#pragma once
// CCompressor: a feed-forward RMS compressor for the effect chain.
//
// One detector reads the power of both channels together, so both are reduced alike and the stereo
// image keeps still. The level and the smoothed excess over the threshold run in decibels, in double
// precision. Both detector states carry a floor of 1e-25 (added to every input of the smoothing), which
// keeps the logarithm finite in silence and the states far from denormal numbers without any flushing.

#include <cstdint>

#include "engine/fx.h"

namespace comp {

// The level floor of the detector states.
inline constexpr double stateFloor = 1e-25;

// One-pole smoothing coefficient for a time constant in milliseconds at a sample rate.
class EnvelopeDetector {
public:
    explicit EnvelopeDetector(double ms) : timeConstant(ms) { setCoef(); }
    virtual ~EnvelopeDetector() = default;

    virtual void setTc(double ms);
    virtual double getTc() const { return timeConstant; }
    virtual void setSampleRate(double rate);
    virtual double getSampleRate() const { return sampleRate; }
    // coef = exp(-1000 / (timeConstant * sampleRate)); a time constant or rate of 0 (or below) gives
    // coef 0, a detector that follows its input at once.
    virtual void setCoef();

    double sampleRate = 44100.0;
    double timeConstant; // ms
    double coef = 0.0;
};

// The two time constants of the gain envelope: attack while the excess rises, release while it falls.
class AttRelEnvelope {
public:
    AttRelEnvelope() = default;
    virtual ~AttRelEnvelope() = default;

    virtual void setAttack(double ms) { attack.setTc(ms); }
    virtual double getAttack() const { return attack.getTc(); }
    virtual void setRelease(double ms) { release.setTc(ms); }
    virtual double getRelease() const { return release.getTc(); }
    virtual void setSampleRate(double rate);
    virtual double getSampleRate() const { return attack.getSampleRate(); }

    EnvelopeDetector attack{10.0};
    EnvelopeDetector release{100.0};
};

// The gain computer: from a key level in dB to the gain of one frame.
class SimpleComp : public AttRelEnvelope {
public:
    SimpleComp();

    virtual void setThresh(double dB) { threshold = dB; }
    // slope: the reciprocal of the "x:1" the user sees.
    virtual void setRatio(double slope) { ratio = slope; }
    virtual void setGain(double dB);
    virtual double getThresh() const { return threshold; }
    virtual double getRatio() const { return ratio; }
    virtual double getGain() const { return gainDb; }
    virtual void reset() { env = stateFloor; }

    // Moves the envelope by one frame towards the excess of levelDb over the threshold and returns
    // the linear gain reduction; the make-up gain is not in it.
    double gainForLevel(double levelDb);

    double threshold = -20.0;                 // dB
    double ratio = static_cast<double>(0.3f); // slope above the threshold, as the editor stores it
    double outputGain;                        // linear make-up gain, from gainDb
    double gainDb = 6.0;                      // make-up gain in dB
    double env = stateFloor;                  // smoothed excess over the threshold, dB
};

// The gain computer keyed by the smoothed mean square of both channels.
class SimpleCompRms : public SimpleComp {
public:
    // All three detectors follow the rate.
    void setSampleRate(double rate) override;
    void reset() override;
    virtual void setWindow(double ms) { rms.setTc(ms); }
    virtual double getWindow() const { return rms.getTc(); }

    // Gain reduction for one stereo frame; moves the mean square and the envelope by one frame.
    double gainForFrame(float left, float right);

    EnvelopeDetector rms{5.0};
    double meanSquare = stateFloor;
};

} // namespace comp

class CCompressor : public CFX {
public:
    CCompressor();

    // The detectors take the rate; the base's field is left as it is.
    void setSampleRate(float rate) override;
    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) override;
    // Words: f32 threshold, f32 ratio (slope), f32 attack, f32 release, f32 gain.
    void saveWords(FXWords& words) const override;
    // Values outside the editor's ranges are brought into them.
    void loadWords(const FXWords& words) override;

    comp::SimpleCompRms rmsComp;
};
