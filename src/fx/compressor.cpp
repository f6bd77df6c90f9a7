#include "fx/compressor.h"

#include <algorithm>
#include <cmath>

#include "fx/dynamics.h"

namespace {

constexpr double decibelsPerNeper = 8.685889638065037;   // 20 / ln 10
constexpr double nepersPerDecibel = 0.11512925464970228; // ln 10 / 20

// Editor ranges; the ratio is stored as the slope 1 / (x:1).
constexpr float minThreshold = -100.0f, maxThreshold = 0.0f;
constexpr float minSlope = 1.0f / 20.0f, maxSlope = 1.0f;
constexpr float minAttack = 1.0f, maxAttack = 500.0f;
constexpr float minRelease = 1.0f, maxRelease = 5000.0f;
constexpr float minGain = -24.0f, maxGain = 24.0f;

} // namespace

namespace comp {

void EnvelopeDetector::setTc(double ms) {
    timeConstant = ms;
    setCoef();
}

void EnvelopeDetector::setSampleRate(double rate) {
    sampleRate = rate;
    setCoef();
}

void EnvelopeDetector::setCoef() {
    const double samples = timeConstant * sampleRate;
    coef = samples > 0.0 ? std::exp(-1000.0 / samples) : 0.0;
}

void AttRelEnvelope::setSampleRate(double rate) {
    attack.setSampleRate(rate);
    release.setSampleRate(rate);
}

SimpleComp::SimpleComp() {
    outputGain = std::exp(gainDb * nepersPerDecibel);
}

void SimpleComp::setGain(double dB) {
    gainDb = dB;
    outputGain = std::exp(gainDb * nepersPerDecibel);
}

double SimpleComp::gainForLevel(double levelDb) {
    const double over = std::max(0.0, levelDb - threshold) + stateFloor;
    const double coef = over > env ? attack.coef : release.coef;
    env = (env - over) * coef + over;
    return std::exp((env - stateFloor) * (ratio - 1.0) * nepersPerDecibel);
}

void SimpleCompRms::setSampleRate(double rate) {
    SimpleComp::setSampleRate(rate);
    rms.setSampleRate(rate);
}

void SimpleCompRms::reset() {
    SimpleComp::reset();
    meanSquare = stateFloor;
}

double SimpleCompRms::gainForFrame(float left, float right) {
    // The squares stay in single precision, as the samples are; their sum and all that follows is double.
    const float squareL = left * left;
    const float squareR = right * right;
    const double sum = static_cast<double>(squareL) + static_cast<double>(squareR) + stateFloor;
    meanSquare = (meanSquare - sum) * rms.coef + sum;
    return gainForLevel(std::log(std::sqrt(meanSquare) + stateFloor) * decibelsPerNeper);
}

} // namespace comp

CCompressor::CCompressor() : CFX(fxCompressor) {
    setName("Compressor");
}

void CCompressor::setSampleRate(float rate) {
    rmsComp.setSampleRate(static_cast<double>(rate));
}

void CCompressor::process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) {
    const double makeUp = rmsComp.outputGain;
    for (int32_t i = 0; i < frames; ++i) {
        const float left = inL[i], right = inR[i];
        const double gain = rmsComp.gainForFrame(left, right);
        // The reduced sample is a float before the make-up gain applies, so both steps round.
        outL[i] = static_cast<float>(static_cast<float>(left * gain) * makeUp);
        outR[i] = static_cast<float>(static_cast<float>(right * gain) * makeUp);
    }
}

void CCompressor::saveWords(FXWords& words) const {
    words.setF32(0, static_cast<float>(rmsComp.getThresh()));
    words.setF32(1, static_cast<float>(rmsComp.getRatio()));
    words.setF32(2, static_cast<float>(rmsComp.getAttack()));
    words.setF32(3, static_cast<float>(rmsComp.getRelease()));
    words.setF32(4, static_cast<float>(rmsComp.getGain()));
}

void CCompressor::loadWords(const FXWords& words) {
    rmsComp.setThresh(boundedSetting(words.f32(0), minThreshold, maxThreshold, -20.0f));
    rmsComp.setRatio(boundedSetting(words.f32(1), minSlope, maxSlope, 0.3f));
    rmsComp.setAttack(boundedSetting(words.f32(2), minAttack, maxAttack, 10.0f));
    rmsComp.setRelease(boundedSetting(words.f32(3), minRelease, maxRelease, 100.0f));
    rmsComp.setGain(boundedSetting(words.f32(4), minGain, maxGain, 6.0f));
}
