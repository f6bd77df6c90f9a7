#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>

#include "sound_rig.h"

using namespace soundtest;

namespace {

constexpr double rate = 48000.0;

// The voice of a sound written out from the formulas, in double precision throughout. The envelopes keep
// their defaults (attack 0, sustain 1), so every target is constant from the first sample.
void reference(const COSCSound& s, int32_t key, int32_t frames, std::vector<double>& outL, std::vector<double>& outR) {
    auto sine = [](double p) {
        const auto index = static_cast<int64_t>(p * 65535.0) & 0xFFFF;
        return std::sin(2.0 * std::numbers::pi * static_cast<double>(index) / 65536.0);
    };
    auto ringShape = [](double ring, double x) { return ring * x * x + (ring - 1.0) * x; };
    auto inc = [](double semitones) { return std::pow(2.0, semitones / 12.0) * 13.75 / rate; };
    const double p = key - 9.0 + s.coarse + s.fine, d = s.detune * s.detune * 0.5;
    const double inc1 = inc(p + d), inc2 = inc(p - d), inc3 = inc(p + d + s.coarse2), inc4 = inc(p - d + s.coarse2);
    const double v = (s.volume * 0.6) * (s.volume * 0.6);
    const double pan = std::clamp(static_cast<double>(s.pan), -1.0, 1.0);
    const double gain[2] = {pan >= 0 ? (1 - pan) * v : (1 - pan * 0.5) * v, pan >= 0 ? (pan * 0.5 + 1) * v : (pan + 1) * v};
    const double f = s.cutoff * s.cutoff, damping = 1.0 - std::min(static_cast<double>(s.q), 0.97);
    const double f1 = s.feed1 * s.feed1 * 0.2, f2 = s.feed2 * s.feed2 * 0.2, pm = s.pmMul * s.phaseMod * s.phaseMod;
    double ph1 = 0, ph2 = s.phase * 0.5, ph3 = 0, ph4 = s.phase2 * 0.5 + s.phase * 0.5;
    double fb1 = 0, fb2 = 0, m3 = 0, m4 = 0;
    double low[2] = {}, band[2] = {}, high[2] = {};
    outL.assign(frames, 0.0);
    outR.assign(frames, 0.0);
    for (int32_t n = 0; n < frames; ++n) {
        m3 = sine(f2 * m3 + ph3);
        ph3 += inc3;
        const double o1 = ringShape(s.oscRing, sine(ringShape(s.modRing, m3) * pm + f1 * fb1 + ph1));
        ph1 += inc1;
        fb1 = o1;
        m4 = sine(f2 * m4 + ph4);
        ph4 += inc4;
        fb2 = ringShape(s.oscRing, sine(ringShape(s.modRing, m4) * pm + f1 * fb2 + ph2));
        ph2 += inc2;
        const double o2 = fb2 * s.oscInv;
        const double in[2] = {(s.width * o1 + o1 + (1 - s.width) * o2) * 0.5,
                              ((1 - s.width) * o1 + o2 + s.width * o2) * 0.5};
        double* out[2] = {&outL[n], &outR[n]};
        for (int side = 0; side < 2; ++side) {
            low[side] += f * band[side];
            high[side] = in[side] - low[side] - damping * band[side];
            band[side] += high[side] * f;
            const double tap = s.filter == 1 ? band[side] : s.filter == 2 ? high[side] : low[side];
            *out[side] = (s.dist ? std::tanh(tap) : tap) * gain[side];
        }
    }
}

}  // namespace

TEST(OscillatorSound, RendersTheVoiceFormulasSampleBySample) {
    const struct {
        const char* what;
        int32_t key;
        std::function<void(COSCSound&)> set;
    } rows[] = {
        {"plain sines", 69, [](COSCSound&) {}},
        {"default program", 69, [](COSCSound& s) { s.feed1 = 0.9f; s.detune = 0.4f; s.width = 0.2f; }},
        {"full width, detuned, second phase", 69, [](COSCSound& s) { s.detune = 0.5f; s.width = 1.0f; s.phase = 0.3f; }},
        {"phase modulation with rings", 69,
         [](COSCSound& s) {
             s.feed2 = 0.5f; s.phaseMod = 0.7f; s.phase2 = 0.25f; s.coarse2 = 12.0f; s.oscRing = 0.6f; s.modRing = 0.3f;
             s.pmMul = 3;
         }},
        {"inverted, band pass", 69,
         [](COSCSound& s) { s.phase = 0.5f; s.oscInv = -1.0f; s.filter = 1; s.cutoff = 0.5f; s.q = 0.6f; }},
        {"high pass at q 1, saturated, panned right", 69,
         [](COSCSound& s) {
             s.coarse = -12.0f; s.fine = 0.3f; s.filter = 2; s.dist = 1; s.cutoff = 0.3f; s.q = 1.0f; s.pan = 0.7f;
             s.volume = 0.8f;
         }},
        {"hard left, saturated", 40, [](COSCSound& s) { s.feed1 = 1.0f; s.dist = 1; s.pan = -1.0f; }},
    };
    constexpr int32_t frames = 4096;
    for (const auto& row : rows) {
        Rig rig;
        COSCSound& sound = rig.plainSound();
        row.set(sound);
        rig.render(frames, {{0, noteOn(row.key)}});
        std::vector<double> refL, refR;
        reference(sound, row.key, frames, refL, refR);
        for (int32_t n = 0; n < frames; ++n) {
            ASSERT_NEAR(rig.left[n], refL[n], 1e-4) << row.what << ": left differs first at sample " << n;
            ASSERT_NEAR(rig.right[n], refR[n], 1e-4) << row.what << ": right differs first at sample " << n;
        }
    }
}

TEST(OscillatorSound, DefaultProgramAtKey69IsAt440HzWithinHalfACent) {
    // Detune 0.4 puts the two oscillators 0.08 semitones either side of the note; the pitch is the
    // geometric mean of the two partials. The table is read with 65535 over 65536 entries, which lowers
    // every oscillator by that ratio.
    Rig rig;
    constexpr int32_t seconds = 10;
    rig.render(static_cast<int64_t>(rate) * seconds + 4096, {{0, noteOn(69)}});
    std::vector<float> mono(rig.left.size());
    for (size_t n = 0; n < mono.size(); ++n) mono[n] = rig.left[n] + rig.right[n];
    const FourierPeaks peaks(mono, 4096, static_cast<size_t>(rate) * seconds, rate);
    double measured[2];
    for (int side = 0; side < 2; ++side) {
        const double expected = 440.0 * std::pow(2.0, (side ? -0.08 : 0.08) / 12.0) * 65535.0 / 65536.0;
        measured[side] = peaks.peak(expected - 1.0, expected + 1.0);
        EXPECT_NEAR(cents(measured[side], expected), 0.0, 0.05) << measured[side] << " Hz";
    }
    EXPECT_NEAR(cents(std::sqrt(measured[0] * measured[1]), 440.0), 0.0, 0.5);
}
