#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "sound_rig.h"

using namespace soundtest;

namespace {

constexpr double rate = 48000.0;

// Settings of one oscillator sound. The envelopes keep their defaults (attack 0, sustain 1), so every
// modulation target is constant and the output follows the per-sample formulas from the first sample.
struct OscRow {
    const char* what = "";
    int32_t key = 69;
    float feed1 = 0, feed2 = 0, phaseMod = 0, detune = 0, width = 0, phase = 0, phase2 = 0, coarse2 = 0;
    float oscRing = 0, modRing = 0, coarse = 0, fine = 0, oscInv = 1;
    int32_t pmMul = 1, filter = 0, dist = 0;
    float cutoff = 1, q = 0, pan = 0, volume = 1;
};

void apply(const OscRow& row, COSCSound& sound) {
    sound.feed1 = row.feed1;
    sound.feed2 = row.feed2;
    sound.phaseMod = row.phaseMod;
    sound.detune = row.detune;
    sound.width = row.width;
    sound.phase = row.phase;
    sound.phase2 = row.phase2;
    sound.coarse2 = row.coarse2;
    sound.oscRing = row.oscRing;
    sound.modRing = row.modRing;
    sound.coarse = row.coarse;
    sound.fine = row.fine;
    sound.oscInv = row.oscInv;
    sound.pmMul = row.pmMul;
    sound.filter = row.filter;
    sound.dist = row.dist;
    sound.cutoff = row.cutoff;
    sound.q = row.q;
    sound.pan = row.pan;
    sound.volume = row.volume;
}

// The voice written out from the formulas, in double precision throughout.
void reference(const OscRow& r, int32_t frames, std::vector<double>& outL, std::vector<double>& outR) {
    auto sine = [](double p) {
        const auto index = static_cast<int64_t>(p * 65535.0) & 0xFFFF;
        return std::sin(2.0 * std::numbers::pi * static_cast<double>(index) / 65536.0);
    };
    auto ringShape = [](double ring, double x) { return ring * x * x + (ring - 1.0) * x; };
    auto inc = [](double semitones) { return std::pow(2.0, semitones / 12.0) * 13.75 / rate; };
    const double p = r.key - 9.0;
    const double d = r.detune * r.detune * 0.5;
    const double inc1 = inc(p + d + r.coarse + r.fine), inc2 = inc(p - d + r.coarse + r.fine);
    const double inc3 = inc(p + d + r.coarse + r.coarse2 + r.fine), inc4 = inc(p - d + r.coarse + r.coarse2 + r.fine);
    const double v = (r.volume * 0.6) * (r.volume * 0.6);
    const double pan = std::clamp(static_cast<double>(r.pan), -1.0, 1.0);
    const double gL = pan >= 0 ? (1 - pan) * v : (1 - pan * 0.5) * v;
    const double gR = pan >= 0 ? (pan * 0.5 + 1) * v : (pan + 1) * v;
    const double f = r.cutoff * r.cutoff, damping = 1.0 - std::min(static_cast<double>(r.q), 0.97);
    const double f1 = r.feed1 * r.feed1 * 0.2, f2 = r.feed2 * r.feed2 * 0.2, pm = r.pmMul * r.phaseMod * r.phaseMod;
    double ph1 = 0, ph2 = r.phase * 0.5, ph3 = 0, ph4 = r.phase2 * 0.5 + r.phase * 0.5;
    double fb1 = 0, fb2 = 0, m3 = 0, m4 = 0;
    double low[2] = {}, band[2] = {}, high[2] = {};
    outL.assign(frames, 0.0);
    outR.assign(frames, 0.0);
    for (int32_t n = 0; n < frames; ++n) {
        m3 = sine(f2 * m3 + ph3);
        ph3 += inc3;
        const double o1 = ringShape(r.oscRing, sine(ringShape(r.modRing, m3) * pm + f1 * fb1 + ph1));
        ph1 += inc1;
        fb1 = o1;
        m4 = sine(f2 * m4 + ph4);
        ph4 += inc4;
        const double o2raw = ringShape(r.oscRing, sine(ringShape(r.modRing, m4) * pm + f1 * fb2 + ph2));
        ph2 += inc2;
        fb2 = o2raw;
        const double o2 = o2raw * r.oscInv;
        const double in[2] = {(r.width * o1 + o1 + (1 - r.width) * o2) * 0.5, ((1 - r.width) * o1 + o2 + r.width * o2) * 0.5};
        double y[2];
        for (int side = 0; side < 2; ++side) {
            low[side] += f * band[side];
            high[side] = in[side] - low[side] - damping * band[side];
            band[side] += high[side] * f;
            const double tap = r.filter == 1 ? band[side] : r.filter == 2 ? high[side] : low[side];
            y[side] = (r.dist ? std::tanh(tap) : tap) * (side == 0 ? gL : gR);
        }
        outL[n] = y[0];
        outR[n] = y[1];
    }
}

}  // namespace

TEST(OscillatorSound, RendersTheVoiceFormulasSampleBySample) {
    const OscRow rows[] = {
        {.what = "plain sines"},
        {.what = "default program", .feed1 = 0.9f, .detune = 0.4f, .width = 0.2f},
        {.what = "full width, detuned, second phase", .detune = 0.5f, .width = 1.0f, .phase = 0.3f},
        {.what = "phase modulation with rings",
         .feed2 = 0.5f, .phaseMod = 0.7f, .phase2 = 0.25f, .coarse2 = 12.0f, .oscRing = 0.6f, .modRing = 0.3f, .pmMul = 3},
        {.what = "inverted, band pass", .phase = 0.5f, .oscInv = -1.0f, .filter = 1, .cutoff = 0.5f, .q = 0.6f},
        {.what = "high pass at q 1, saturated, panned right",
         .coarse = -12.0f, .fine = 0.3f, .filter = 2, .dist = 1, .cutoff = 0.3f, .q = 1.0f, .pan = 0.7f, .volume = 0.8f},
        {.what = "hard left, saturated", .key = 40, .feed1 = 1.0f, .dist = 1, .pan = -1.0f},
    };
    constexpr int32_t frames = 4096;
    for (const OscRow& row : rows) {
        Rig rig;
        apply(row, rig.plainSound());
        rig.render(frames, {{0, noteOn(row.key)}});
        std::vector<double> refL, refR;
        reference(row, frames, refL, refR);
        for (int32_t n = 0; n < frames; ++n) {
            ASSERT_NEAR(rig.left[n], refL[n], 1e-4) << row.what << ": left differs first at sample " << n;
            ASSERT_NEAR(rig.right[n], refR[n], 1e-4) << row.what << ": right differs first at sample " << n;
        }
    }
}

TEST(OscillatorSound, EdgeSettingsGiveTheirExactShapes) {
    struct Row {
        const char* what;
        OscRow settings;
        bool leftEqualsRight;
        bool silent;
    } rows[] = {
        {"all shaping off: both sides alike", {}, true, false},
        {"inverted second oscillator at width 0 cancels", {.oscInv = -1.0f}, true, true},
        {"width 1 keeps the pair apart", {.detune = 0.6f, .width = 1.0f}, false, false},
    };
    for (const Row& row : rows) {
        Rig rig;
        apply(row.settings, rig.plainSound());
        rig.render(2048, {{0, noteOn(69)}});
        bool equal = true, silent = true;
        for (size_t n = 0; n < rig.left.size(); ++n) {
            equal = equal && rig.left[n] == rig.right[n];
            silent = silent && rig.left[n] == 0.0f && rig.right[n] == 0.0f;
        }
        EXPECT_EQ(equal, row.leftEqualsRight) << row.what;
        EXPECT_EQ(silent, row.silent) << row.what;
    }
}

TEST(OscillatorSound, DefaultProgramAtKey69IsAt440HzWithinHalfACent) {
    // The default sound detunes its two oscillators by +-0.08 semitones (detune 0.4: 0.4^2 * 0.5), so the
    // output holds two equal partials around the note. Each is measured from a ten-second render; their
    // geometric mean is the note's pitch. The table is read with the factor 65535 over 65536 entries,
    // which lowers every oscillator by that ratio (0.026 cent).
    Rig rig;
    constexpr int32_t seconds = 10;
    rig.render(static_cast<int64_t>(rate) * seconds + 4096, {{0, noteOn(69)}});
    std::vector<float> mono(rig.left.size());
    for (size_t n = 0; n < mono.size(); ++n) mono[n] = rig.left[n] + rig.right[n];
    const FourierPeaks peaks(mono, 4096, static_cast<size_t>(rate) * seconds, rate);

    const double lookup = 65535.0 / 65536.0;
    const double upper = 440.0 * std::pow(2.0, 0.08 / 12.0) * lookup;
    const double lower = 440.0 * std::pow(2.0, -0.08 / 12.0) * lookup;
    const double measuredUpper = peaks.peak(upper - 1.0, upper + 1.0);
    const double measuredLower = peaks.peak(lower - 1.0, lower + 1.0);
    EXPECT_NEAR(cents(measuredUpper, upper), 0.0, 0.05) << measuredUpper << " Hz";
    EXPECT_NEAR(cents(measuredLower, lower), 0.0, 0.05) << measuredLower << " Hz";
    EXPECT_NEAR(cents(std::sqrt(measuredUpper * measuredLower), 440.0), 0.0, 0.5);
}
