#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <memory>
#include <numbers>
#include <tuple>
#include <vector>

#include "engine/fx.h"
#include "fx/bitcrusher.h"
#include "fx/compressor.h"
#include "fx/dynamics.h"
#include "fx/filter.h"
#include "support/stereo.h"

namespace {

using namespace stereotest;

constexpr double rate = 48000.0;

// Left a sine, right a cosine: the sum of the squares, which the compressor's detector reads, is the
// amplitude squared in every frame, so the level is steady without a ripple to average out.
void addRotating(Stereo& out, size_t from, size_t to, double levelDb) {
    const double amplitude = std::pow(10.0, levelDb / 20.0), w = 2.0 * std::numbers::pi * 997.0 / rate;
    for (size_t i = from; i < to; ++i) {
        out.l[i] = static_cast<float>(amplitude * std::sin(w * static_cast<double>(i)));
        out.r[i] = static_cast<float>(amplitude * std::cos(w * static_cast<double>(i)));
    }
}

// Power gain of one frame in dB, both channels together as the detector sees them.
double frameGainDb(const Stereo& in, const Stereo& out, size_t i) {
    const auto power = [i](const Stereo& s) { return double(s.l[i]) * s.l[i] + double(s.r[i]) * s.r[i]; };
    return 10.0 * std::log10(power(out) / power(in));
}

// Frames after a step until the gain has gone 1 - 1/e of its way from `from` to `to` dB, interpolated.
double framesToTimeConstant(const Stereo& in, const Stereo& out, size_t step, double from, double to) {
    const double mark = from + (to - from) * (1.0 - std::exp(-1.0));
    double before = from;
    for (size_t i = step; i < in.size(); ++i) {
        const double now = frameGainDb(in, out, i);
        if ((to < from) == (now <= mark)) return static_cast<double>(i - step) + (mark - before) / (now - before);
        before = now;
    }
    return -1.0;
}

uint32_t f32(float value) { return std::bit_cast<uint32_t>(value); }
uint32_t i32(int32_t value) { return static_cast<uint32_t>(value); }

// A filter that has stood at this cutoff for a while: no ramp to come.
void setSteady(CFilterFX& filter, int32_t type, float cutoff, float q) {
    filter.type = type;
    filter.q = q;
    filter.target = filter.lastTarget = filter.cutoff = cutoff;
}

// low[n] = low[n-1] + f band[n-1], high[n] = x[n] - low[n] - d band[n-1], band[n] = band[n-1] + f high[n]:
// with D = (1 - z^-1)^2 + f^2 z^-1 + d f z^-1 (1 - z^-1), low is f^2 z^-1 / D, band f (1 - z^-1) / D,
// high (1 - z^-1)^2 / D.
std::complex<double> response(int32_t type, double f, double d, double w) {
    const std::complex<double> z1 = std::polar(1.0, -w), diff = 1.0 - z1;
    const std::complex<double> denominator = diff * diff + f * f * z1 + d * f * z1 * diff;
    if (type == filterBandPass) return f * diff / denominator;
    if (type == filterHighPass) return diff * diff / denominator;
    return f * f * z1 / denominator;
}

} // namespace

TEST(CompressorCurve, SettledGainFollowsThresholdRatioAndMakeUpWithinATenthOfADecibel) {
    struct Row {
        double thresholdDb, ratio, gainDb, levelDb;
    };
    // Below, at and above the threshold; a steep ratio with make-up; a cut over 0 dB; a ratio of 1.
    const Row rows[] = {{-20, 4, 6, -40}, {-20, 4, 6, -20}, {-20, 4, 6, 0}, {-60, 20, 24, -6}, {0, 8, -6, 6}, {-30, 1, 12, 0}};
    constexpr size_t settle = 24000, measure = 4800; // settle: 50 attack times
    for (const Row& row : rows) {
        CCompressor compressor;
        compressor.setSampleRate(static_cast<float>(rate));
        compressor.rmsComp.setThresh(row.thresholdDb);
        compressor.rmsComp.setRatio(1.0 / row.ratio);
        compressor.rmsComp.setGain(row.gainDb);
        Stereo in(settle + measure);
        addRotating(in, 0, in.size(), row.levelDb);
        const Stereo out = run(compressor, in);
        const double expected = row.gainDb + (1.0 / row.ratio - 1.0) * std::max(0.0, row.levelDb - row.thresholdDb);
        for (size_t i = settle; i < in.size(); i += 97)
            ASSERT_NEAR(frameGainDb(in, out, i), expected, 0.1)
                << "threshold " << row.thresholdDb << " ratio " << row.ratio << " level " << row.levelDb;
    }
}

TEST(CompressorTiming, AttackAndReleaseTimeConstantsWithinFivePercent) {
    // -40 dB to 0 dB and back, over a -20 dB threshold at 4:1: the gain moves between 0 and -15 dB.
    for (const auto& [attackMs, releaseMs, sampleRate] :
         {std::tuple{1.0, 10.0, 48000.0}, std::tuple{200.0, 5000.0, 44100.0}, std::tuple{5.0, 1000.0, 96000.0}}) {
        CCompressor compressor;
        compressor.setSampleRate(static_cast<float>(sampleRate));
        compressor.rmsComp.setAttack(attackMs);
        compressor.rmsComp.setRelease(releaseMs);
        compressor.rmsComp.setRatio(0.25);
        compressor.rmsComp.setGain(0.0);
        compressor.rmsComp.setWindow(0.001); // the level follows at once, so only the envelope is timed
        const double attack = attackMs * sampleRate / 1000.0, release = releaseMs * sampleRate / 1000.0;
        const auto loudAt = static_cast<size_t>(10 * attack), quietAt = 2 * loudAt;
        Stereo in(quietAt + static_cast<size_t>(3 * release));
        addRotating(in, 0, loudAt, -40.0);
        addRotating(in, loudAt, quietAt, 0.0);
        addRotating(in, quietAt, in.size(), -40.0);
        const Stereo out = run(compressor, in);
        EXPECT_NEAR(framesToTimeConstant(in, out, loudAt, 0.0, -15.0), attack, 0.05 * attack) << attackMs << " ms";
        EXPECT_NEAR(frameGainDb(in, out, quietAt - 1), -15.0, 0.01);
        EXPECT_NEAR(framesToTimeConstant(in, out, quietAt, -15.0, 0.0), release, 0.05 * release) << releaseMs << " ms";
    }
}

// The timing test measures attack and release but not the level detector. A time or rate not above 0
// gives coefficient 0, a detector that follows at once, instead of a division by zero.
TEST(CompressorDetector, AllThreeTakeTheRateAndATimeOrRateNotAboveZeroFollowsAtOnce) {
    CCompressor compressor;
    compressor.setSampleRate(96000.0f);
    EXPECT_DOUBLE_EQ(compressor.rmsComp.attack.coef, std::exp(-1000.0 / (10.0 * 96000.0)));
    EXPECT_DOUBLE_EQ(compressor.rmsComp.release.coef, std::exp(-1000.0 / (100.0 * 96000.0)));
    EXPECT_DOUBLE_EQ(compressor.rmsComp.rms.coef, std::exp(-1000.0 / (5.0 * 96000.0)));
    for (const auto& [ms, sampleRate] :
         {std::pair{0.0, 48000.0}, std::pair{10.0, 0.0}, std::pair{-3.0, 48000.0}, std::pair{std::nan(""), 48000.0}}) {
        comp::EnvelopeDetector detector(1.0);
        detector.setSampleRate(sampleRate);
        detector.setTc(ms);
        EXPECT_EQ(detector.coef, 0.0) << ms << " ms at " << sampleRate;
    }
}

// Exact half steps and the finest grid, which noise would not hit.
TEST(BitcrusherQuantise, HandWorkedFramesOnEachChannelAlone) {
    struct Row {
        int32_t bits;
        std::vector<float> in, expected;
    };
    const Row rows[] = {
        // Grid 1/4, half up: -1.5 steps go to -1, 1.2 to 1, 3.496 to 3, -4.8 to -5.
        {2, {0.3f, -0.375f, 0.125f, 0.874f, -1.2f, 1e-6f}, {0.25f, -0.25f, 0.25f, 0.75f, -1.25f, 0.0f}},
        // 32 bits: a sample of normal size already lies on the grid of 2^-32; a tiny one is rounded to it.
        {32, {0.1f, -0.7f, 1e-12f, 3e-10f}, {0.1f, -0.7f, 0.0f, 0x1p-32f}},
    };
    for (const Row& row : rows) {
        for (const bool right : {false, true}) {
            CBitcrusher crusher;
            crusher.bits = row.bits;
            crusher.degrade = 1;
            Stereo in(row.in.size());
            (right ? in.r : in.l) = row.in;
            const Stereo out = run(crusher, in, 3);
            EXPECT_EQ(right ? out.r : out.l, row.expected) << "bits " << row.bits;
            EXPECT_EQ(right ? out.l : out.r, std::vector<float>(row.in.size()));
        }
    }
}

TEST(BitcrusherQuantise, NoiseMatchesTheHoldAndGridAtAnyBlockSize) {
    const Stereo in = noise(20000, 1.5f, 17);
    for (const auto& [bits, degrade, block] : {std::tuple{1, 1, 64u}, std::tuple{4, 4, 1u}, std::tuple{12, 17, 5u},
                                               std::tuple{24, 63, 100u}}) {
        CBitcrusher crusher;
        crusher.bits = bits;
        crusher.degrade = degrade;
        const Stereo out = run(crusher, in, block);
        const double step = std::pow(0.5, bits);
        for (size_t i = 0; i < in.size(); ++i) {
            const size_t held = (i + 1) / degrade * degrade; // frames degrade-1, 2 degrade-1, ...
            const float holdL = held ? in.l[held - 1] : 0.0f, holdR = held ? in.r[held - 1] : 0.0f;
            ASSERT_EQ(out.l[i], static_cast<float>(std::floor(holdL / step + 0.5) * step)) << "bits " << bits << " frame " << i;
            ASSERT_EQ(out.r[i], static_cast<float>(std::floor(holdR / step + 0.5) * step)) << "bits " << bits << " frame " << i;
        }
    }
}

TEST(FilterResponse, EachOutputFollowsItsTransferFunction) {
    struct Row {
        int32_t type;
        float cutoff, q;
        int32_t cycles; // in the window of 4800 frames
    };
    const Row rows[] = {
        {filterLowPass, 1.0f, 0.0f, 100},  {filterLowPass, 0.2f, 1.0f, 30},   {filterLowPass, 0.4f, 0.3f, 1500},
        {filterBandPass, 0.3f, 0.9f, 69},  {filterBandPass, 0.5f, 0.0f, 10},  {filterHighPass, 0.8f, 0.0f, 1000},
        {filterHighPass, 0.3f, 0.95f, 66},
    };
    constexpr size_t settle = 96000, window = 4800;
    for (const Row& row : rows) {
        CFilterFX filter;
        setSteady(filter, row.type, row.cutoff, row.q);
        const double w = 2.0 * std::numbers::pi * row.cycles / static_cast<double>(window);
        Stereo in(settle + window);
        for (size_t i = 0; i < in.size(); ++i)
            in.l[i] = in.r[i] = static_cast<float>(std::cos(w * double(i)));
        const Stereo out = run(filter, in);
        std::complex<double> measured;
        for (size_t i = settle; i < in.size(); ++i)
            measured += double(out.l[i]) * std::polar(2.0 / window, -w * double(i));
        const std::complex<double> expected = response(row.type, row.cutoff * row.cutoff, 1.0f - row.q * 0.99f, w);
        EXPECT_LT(std::abs(measured - expected), 1e-3 * std::max(1.0, std::abs(expected)))
            << "type " << row.type << " cutoff " << row.cutoff << " q " << row.q << ": " << measured << " against "
            << expected;
        EXPECT_EQ(out.l, out.r);
    }
}

TEST(FilterRamp, EveryBlockSizeGivesTheSameSamples) {
    // A new cutoff at each cut: 150 is during the first glide, 1200 sets an unchanged one.
    const size_t cuts[] = {0, 150, 1200, 2000, 3000};
    const float targets[] = {0.2f, 0.7f, 0.7f, 0.4f};
    const Stereo in = noise(3000, 0.8f, 29);
    std::vector<Stereo> outs;
    for (const size_t block : {1, 7, 64, 1024}) {
        CFilterFX filter;
        setSteady(filter, filterBandPass, 1.0f, 0.6f);
        Stereo& out = outs.emplace_back(in.size());
        for (size_t piece = 0; piece < 4; ++piece) {
            filter.setCutoff(targets[piece]);
            for (size_t at = cuts[piece]; at < cuts[piece + 1]; at += block) {
                const auto n = static_cast<int32_t>(std::min(block, cuts[piece + 1] - at));
                filter.process(in.l.data() + at, in.r.data() + at, out.l.data() + at, out.r.data() + at, n);
            }
        }
        EXPECT_EQ(filter.cutoff, 0.4f);
        EXPECT_EQ(filter.rampStep, 0.0f);
        for (size_t i = 0; i < in.size(); ++i) {
            ASSERT_EQ(out.l[i], outs.front().l[i]) << "block " << block << " frame " << i;
            ASSERT_EQ(out.r[i], outs.front().r[i]) << "block " << block << " frame " << i;
        }
    }
}

TEST(FilterRamp, ALoadedCutoffGlidesForExactly300SamplesAndAChangeOnTheWayStartsAfresh) {
    CFilterFX filter;
    Stereo silence(1), out(1);
    const auto frame = [&] { filter.process(silence.l.data(), silence.r.data(), out.l.data(), out.r.data(), 1); };
    FXWords words;
    words.word[0] = i32(filterLowPass);
    words.word[1] = f32(0.25f);
    filter.loadWords(words);
    float expected = 1.0f, step = (0.25f - 1.0f) / 300.0f;
    for (int32_t i = 1; i <= 450; ++i) {
        if (i == 101) { // a new cutoff after 100 frames glides from where the first glide stands
            filter.setCutoff(0.5f);
            step = (0.5f - expected) / 300.0f;
        }
        frame();
        expected = i >= 400 ? 0.5f : expected + step; // the second glide lands on frame 400 exactly
        ASSERT_EQ(filter.cutoff, expected) << "frame " << i;
    }
    filter.loadWords(words); // 0.25 again: a change
    frame();
    EXPECT_EQ(filter.rampLeft, 299);
    filter.loadWords(words); // unchanged: no glide
    frame();
    EXPECT_EQ(filter.rampLeft, 298);
}

TEST(FilterState, TurningOnAgainSilencesTheOldResonance) {
    CFilterFX filter;
    setSteady(filter, filterBandPass, 0.3f, 0.95f);
    run(filter, impulse(64, 1.0f, 1.0f));
    const Stereo silence(256);
    EXPECT_NE(run(filter, silence).l.back(), 0.0f) << "left alone, it rings on";
    filter.setEnabled(false);
    filter.setEnabled(true);
    EXPECT_EQ(run(filter, silence).l, silence.l);
}

// Settings in range are kept; the table of every kind checks that with the other effects.
TEST(DynamicsWords, LoadBringsSettingsIntoTheEditorRanges) {
    const float nan = std::nanf(""), twentieth = 1.0f / 20.0f;
    struct Row {
        int32_t kind;
        std::vector<uint32_t> loaded, saved;
    };
    const Row rows[] = {
        {fxCompressor, {f32(-150), f32(0), f32(0), f32(0), f32(40)}, {f32(-100), f32(twentieth), f32(1), f32(1), f32(24)}},
        {fxCompressor, {f32(10), f32(3), f32(900), f32(9000), f32(-30)}, {f32(0), f32(1), f32(500), f32(5000), f32(-24)}},
        {fxCompressor, {f32(nan), f32(nan), f32(nan), f32(nan), f32(nan)}, {f32(-20), f32(0.3f), f32(10), f32(100), f32(6)}},
        {fxBitcrusher, {i32(0), i32(0)}, {i32(1), i32(1)}},
        {fxBitcrusher, {i32(5000), i32(-3)}, {i32(32), i32(1)}},
        {fxFilter, {i32(7), f32(4), f32(2)}, {i32(filterHighPass), f32(1), f32(1)}},
        {fxFilter, {i32(-1), f32(-0.5f), f32(-3)}, {i32(filterLowPass), f32(0), f32(0)}},
        {fxFilter, {i32(filterBandPass), f32(nan), f32(nan)}, {i32(filterBandPass), f32(1), f32(0)}}, // the cutoff stays
    };
    registerDynamicsEffects();
    for (const Row& row : rows) {
        const std::unique_ptr<CFX> fx(createFX(row.kind));
        FXWords words, saved;
        std::copy(row.loaded.begin(), row.loaded.end(), words.word);
        fx->loadWords(words);
        fx->saveWords(saved);
        std::vector<uint32_t> expected = row.saved;
        expected.resize(FXWords::count);
        EXPECT_EQ(std::vector<uint32_t>(saved.word, saved.word + FXWords::count), expected) << "kind " << row.kind;
        fx->setSampleRate(static_cast<float>(rate));
        const Stereo out = run(*fx, noise(4096, 2.0f, 8), 512);
        EXPECT_TRUE(std::all_of(out.l.begin(), out.l.end(), [](float v) { return std::isfinite(v); }));
    }
}
