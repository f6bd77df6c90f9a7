// Delay, reverb, chorus and phaser against references worked out here from their formulas: echo times
// and levels in closed form, the reverb's network in double precision, the chorus as the input read at
// the delay its LFO gives, the phaser from its all-pass transfer function.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <complex>
#include <functional>
#include <memory>
#include <numbers>
#include <string>
#include <tuple>
#include <vector>

#include "fx/chorus.h"
#include "fx/delay.h"
#include "fx/phaser.h"
#include "fx/reverb.h"
#include "fx/time_effects.h"
#include "support/rt_probe.h"

namespace {

constexpr int32_t blockFrames = 1024;
constexpr double pi = std::numbers::pi;
constexpr double lfoSize = 131072.0;

struct Stereo {
    explicit Stereo(size_t frames, float fill = 0.0f) : l(frames, fill), r(frames, fill) {}
    size_t size() const { return l.size(); }
    std::vector<float> l, r;
};

Stereo impulse(size_t frames, float left, float right, size_t at = 0) {
    Stereo s(frames);
    s.l[at] = left;
    s.r[at] = right;
    return s;
}

// Deterministic noise in -1..1, different on the two sides.
Stereo noise(size_t frames) {
    Stereo s(frames);
    uint32_t state = 12345;
    auto next = [&] {
        return static_cast<float>((state = state * 1664525u + 1013904223u) >> 8) / 8388608.0f - 1.0f;
    };
    for (size_t i = 0; i < frames; ++i) {
        s.l[i] = next();
        s.r[i] = next();
    }
    return s;
}

// Runs the whole signal through the effect in blocks; `out` keeps what it held where the effect adds.
Stereo run(CFX& fx, const Stereo& in, int32_t block = blockFrames, float fill = 0.0f) {
    Stereo out(in.size(), fill);
    for (size_t at = 0; at < in.size(); at += static_cast<size_t>(block)) {
        const auto n = static_cast<int32_t>(std::min(static_cast<size_t>(block), in.size() - at));
        fx.process(in.l.data() + at, in.r.data() + at, out.l.data() + at, out.r.data() + at, n);
    }
    return out;
}

// The first sample at or after `from` that is not exactly 0; the size when there is none.
size_t firstNonZero(const std::vector<float>& v, size_t from = 0) {
    const auto it =
        std::find_if(v.begin() + static_cast<ptrdiff_t>(from), v.end(), [](float x) { return x != 0.0f; });
    return static_cast<size_t>(it - v.begin());
}

bool allZero(const float* data, size_t n) {
    return std::all_of(data, data + n, [](float x) { return x == 0.0f; });
}

template <typename Row> std::string rowName(const testing::TestParamInfo<Row>& info) {
    return info.param.name;
}

// ---------------------------------------------------------------------------------------------------
// Delay

struct EchoRow {
    const char* name;
    int32_t rate, sync, tempo;
    int32_t tenthsMsL, mulL, divL; // the left line's time: tenths of a ms, or with sync mul beats of div
    int32_t tenthsMsR, mulR, divR;
};

// Line length in whole numbers: rate x ms / 1000, or rate x 60 x mul / (div x tempo), truncated, then
// at least 1 and at most the 480,000 samples a buffer holds.
size_t expectedFrames(const EchoRow& row, int32_t tenthsMs, int32_t mul, int32_t div) {
    const int64_t frames = row.sync != 0 ? int64_t{row.rate} * 60 * mul / (int64_t{div} * row.tempo)
                                         : int64_t{row.rate} * tenthsMs / 10000;
    return static_cast<size_t>(std::clamp<int64_t>(frames, 1, 480000));
}

class DelayEcho : public testing::TestWithParam<EchoRow> {};

TEST_P(DelayEcho, FirstTwoEchoesLandOnTheExactSampleAtFeedbackTimesWet) {
    const EchoRow& row = GetParam();
    CDelay delay;
    delay.setSampleRate(static_cast<float>(row.rate));
    delay.tempo = static_cast<float>(row.tempo);
    delay.setSync(row.sync);
    delay.setDelayTimeLeft(static_cast<float>(row.tenthsMsL) / 10.0f);
    delay.setDelayTimeRight(static_cast<float>(row.tenthsMsR) / 10.0f);
    delay.setMulLeft(row.mulL);
    delay.setDivLeft(row.divL);
    delay.setMulRight(row.mulR);
    delay.setDivRight(row.divR);
    delay.setFeedback(0.6f);
    delay.dry = 0.0f;
    delay.wet = 0.8f;
    delay.setEnabled(true);

    const size_t dL = expectedFrames(row, row.tenthsMsL, row.mulL, row.divL);
    const size_t dR = expectedFrames(row, row.tenthsMsR, row.mulR, row.divR);
    const Stereo out = run(delay, impulse(2 * std::max(dL, dR) + 5, 1.0f, 1.0f));
    for (const auto& [side, d] : {std::pair{&out.l, dL}, std::pair{&out.r, dR}}) {
        ASSERT_EQ(firstNonZero(*side), d);
        EXPECT_FLOAT_EQ((*side)[d], 0.6f * 0.8f);
        ASSERT_EQ(firstNonZero(*side, d + 1), 2 * d);
        EXPECT_FLOAT_EQ((*side)[2 * d], 0.6f * 0.6f * 0.8f);
    }
}

INSTANTIATE_TEST_SUITE_P(
    DelayTimes, DelayEcho,
    testing::Values(EchoRow{"ms200and50at44k", 44100, 0, 120, 2000, 1, 1, 500, 1, 1},
                    EchoRow{"fractionalMs", 48000, 0, 120, 105, 1, 1, 1234, 1, 1},
                    EchoRow{"belowOneSampleHoldsOne", 48000, 0, 120, 0, 1, 1, 1, 1, 1},
                    EchoRow{"quarterAndThreeEighthsOfABeat", 48000, 1, 120, 0, 1, 4, 0, 3, 8},
                    EchoRow{"tempoWithRemainder", 48000, 1, 133, 0, 3, 8, 0, 5, 16},
                    EchoRow{"slowTempoAt96k", 96000, 1, 37, 0, 1, 1, 0, 1, 3},
                    EchoRow{"beyondTheBufferIsLimited", 48000, 1, 10, 0, 32, 1, 0, 1, 1}),
    rowName<EchoRow>);

struct CrossRow {
    const char* name;
    float cross, feedback;
    bool fromLeft; // the impulse comes in on the left, else on the right
};

// Echoes k = 1, 2, 3 of a unit impulse through two lines of equal length, read straight out. Each line
// takes its own echo times 1 - c and the other's times c; the right input enters times 1 - c, the left
// one whole; all that is written goes through the feedback f.
std::array<std::array<double, 3>, 2> expectedEchoes(const CrossRow& row) {
    const double c = row.cross, ic = 1.0 - c, f = row.feedback;
    if (row.fromLeft)
        return {{{f, ic * f * f, (c * c + ic * ic) * f * f * f}, {0.0, c * f * f, 2.0 * c * ic * f * f * f}}};
    return {{{0.0, c * ic * f * f, 2.0 * c * ic * ic * f * f * f},
             {ic * f, ic * ic * f * f, (ic * ic * ic + c * c * ic) * f * f * f}}};
}

class DelayCross : public testing::TestWithParam<CrossRow> {};

TEST_P(DelayCross, EchoesCrossBetweenTheLinesAsTheirFeedsGive) {
    const CrossRow& row = GetParam();
    constexpr size_t d = 120; // 2.5 ms at 48 kHz
    CDelay delay;
    delay.setSampleRate(48000.0f);
    delay.setSync(0);
    delay.setDelayTimeLeft(2.5f);
    delay.setDelayTimeRight(2.5f);
    delay.setFeedback(row.feedback);
    delay.cross = row.cross;
    delay.dry = 0.0f;
    delay.wet = 1.0f;
    delay.setEnabled(true);

    const Stereo out = run(delay, impulse(4 * d, row.fromLeft ? 1.0f : 0.0f, row.fromLeft ? 0.0f : 1.0f));
    const auto want = expectedEchoes(row);
    for (size_t i = 0; i < out.size(); ++i) {
        const bool echo = i > 0 && i % d == 0;
        ASSERT_NEAR(out.l[i], echo ? want[0][i / d - 1] : 0.0, 1e-6) << "left, frame " << i;
        ASSERT_NEAR(out.r[i], echo ? want[1][i / d - 1] : 0.0, 1e-6) << "right, frame " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(DelayFeeds, DelayCross,
                         testing::Values(CrossRow{"independentLeft", 0.0f, 0.5f, true},
                                         CrossRow{"independentRight", 0.0f, 0.5f, false},
                                         CrossRow{"quarterFromLeft", 0.25f, 0.7f, true},
                                         CrossRow{"quarterFromRight", 0.25f, 0.7f, false},
                                         CrossRow{"fullFromLeft", 1.0f, 0.9f, true},
                                         CrossRow{"fullFromRightIsLost", 1.0f, 0.9f, false}),
                         rowName<CrossRow>);

TEST(DelayMix, AddsPannedEchoesAndDryOntoWhatTheOutputHoldsButNothingWithoutBuffers) {
    CDelay delay;
    delay.setSampleRate(48000.0f);
    delay.setSync(0);
    delay.setDelayTimeLeft(1.0f);  // 48 samples
    delay.setDelayTimeRight(2.0f); // 96 samples
    delay.panLeft = 0.0f;          // the left echo half to each side
    delay.panRight = 0.5f;         // the right echo a quarter left, three quarters right
    delay.dry = 0.75f;
    delay.wet = 1.0f;
    Stereo in = impulse(100, 1.0f, -1.0f);
    in.l[10] = 0.5f;
    const Stereo untouched = run(delay, in, blockFrames, 0.25f);
    EXPECT_TRUE(std::all_of(untouched.l.begin(), untouched.l.end(), [](float x) { return x == 0.25f; }));

    delay.setEnabled(true);
    const Stereo out = run(delay, in, blockFrames, 0.25f);
    for (size_t i = 0; i < out.size(); ++i) {
        // Echoes of 1 at 48 and 96 (0.5, 0.25), of 0.5 at 58 (0.25) on the left line, of -1 at 96 on the
        // right.
        const float echoL = (i == 48 ? 0.5f : 0.0f) + (i == 58 || i == 96 ? 0.25f : 0.0f);
        const float echoR = i == 96 ? -0.5f : 0.0f;
        ASSERT_FLOAT_EQ(out.l[i], 0.25f + 0.75f * in.l[i] + 0.5f * echoL + 0.25f * echoR) << i;
        ASSERT_FLOAT_EQ(out.r[i], 0.25f + 0.75f * in.r[i] + 0.5f * echoL + 0.75f * echoR) << i;
    }
}

struct TapRow {
    const char* name;
    float offsetMs;
    size_t echo; // of a 10 ms right line, 480 samples
};

class DelayTap : public testing::TestWithParam<TapRow> {};

TEST_P(DelayTap, RightTapLeadsByTheOffsetWithinTheLine) {
    CDelay delay;
    delay.setSampleRate(48000.0f);
    delay.setSync(0);
    delay.setDelayTimeRight(10.0f);
    delay.tapOffset = GetParam().offsetMs;
    delay.setEnabled(true);
    EXPECT_EQ(firstNonZero(run(delay, impulse(600, 0.0f, 1.0f)).r, 1), GetParam().echo);
}

INSTANTIATE_TEST_SUITE_P(DelayOffsets, DelayTap,
                         testing::Values(TapRow{"none", 0.0f, 480}, TapRow{"oneMsEarly", 1.0f, 432},
                                         TapRow{"negativeWrapsToLate", -1.0f, 48},
                                         TapRow{"longerThanTheLineWraps", 11.0f, 432}),
                         rowName<TapRow>);

TEST(DelayLines, ShorterTimeWhileRunningRestartsInsideTheLine) {
    CDelay delay;
    delay.setSampleRate(48000.0f);
    delay.setSync(0);
    delay.setDelayTimeLeft(5000.0f);
    delay.setEnabled(true);
    run(delay, Stereo(300000));
    ASSERT_GT(delay.posL, 480);
    delay.setDelayTimeLeft(10.0f);
    EXPECT_EQ(firstNonZero(run(delay, impulse(1000, 1.0f, 0.0f, 100)).l, 101), 100u + 480u);
}

TEST(DelayLines, LentBuffersAreUsedInPlaceOfOwnOnes) {
    auto left = std::make_unique<float[]>(CDelay::bufferFrames);
    auto right = std::make_unique<float[]>(CDelay::bufferFrames);
    CDelay delay;
    delay.shareBuffers(left.get(), right.get());
    delay.setEnabled(true);
    ASSERT_EQ(delay.bufL, left.get());
    run(delay, impulse(16, 1.0f, 1.0f));
    EXPECT_EQ(left[0], 0.5f);
    EXPECT_EQ(right[0], 0.5f);
}

// ---------------------------------------------------------------------------------------------------
// Reverb

std::unique_ptr<CReverb> reverbAt(float rate, int32_t sizeMs, int32_t preDelayMs = 20, float dry = 0.0f,
                                  float wet = 1.0f) {
    auto reverb = std::make_unique<CReverb>();
    reverb->setSampleRate(rate);
    reverb->setSizeMs(sizeMs);
    reverb->setPreDelay(preDelayMs);
    reverb->dry = dry;
    reverb->wet = wet;
    reverb->setEnabled(true);
    return reverb;
}

// The network from its description in double precision, with whole histories in place of rings.
Stereo referenceReverb(const Stereo& in, double rate, int32_t sizeMs, int32_t preDelayMs, double dry,
                       double wet) {
    constexpr std::array<int32_t, 12> length = {601,  691,  773,  839,  919,  997,
                                                1061, 1093, 1129, 1151, 1171, 1187};
    const double seconds = std::max(sizeMs, 1000) / 1000.0;
    const auto pre = static_cast<size_t>(std::clamp(preDelayMs, 0, 250) * rate / 1000.0);
    const size_t n = in.size();
    std::vector<std::vector<double>> fed(12, std::vector<double>(n));
    auto at = [&](size_t line, double i) { return i >= 0.0 ? fed[line][static_cast<size_t>(i)] : 0.0; };
    std::array<double, 12> b, a, y{}, prev{};
    for (size_t k = 0; k < 12; ++k) {
        const double g = std::pow(10.0, -3.0 * length[k] / (rate * seconds));
        const double hf = 20.0 * std::log10(g) * std::log(10.0) / 80.0 * (1.0 - 2.4 * 2.4);
        b[k] = (1.0 - hf) * g;
        a[k] = -hf;
    }
    Stereo out(n);
    for (size_t t = 0; t < n; ++t) {
        const double x = (double{in.l[t]} + in.r[t]) / 2.0;
        const double d = t >= pre ? (double{in.l[t - pre]} + in.r[t - pre]) / 2.0 : 0.0;
        double accL = x, accR = x, sum = 0.0;
        for (size_t k = 0; k < 12; ++k) {
            double read;
            if (k < 6) {
                // Lines 0..5 swing 6 samples either way at 2 Hz of 44.1 kHz, an eighth of a cycle apart.
                const double phase = k / 8.0 + static_cast<double>(t) * 2.0 / 44100.0;
                const double m =
                    static_cast<double>(t) - length[k] +
                    6.0 * std::sin(2.0 * pi *
                                   static_cast<double>(static_cast<int64_t>(phase * 65536.0) & 65535) /
                                   65536.0);
                const double whole = std::floor(m);
                read = prev[k] = at(k, whole) + (at(k, whole + 1.0) - prev[k]) * (m - whole);
            } else {
                read = at(k, static_cast<double>(t) - length[k]);
            }
            y[k] = b[k] * read - a[k] * y[k];
            accL += (k % 2 == 0 ? 1.0 : -1.0) * y[k];
            accR += (k % 4 < 2 ? 1.0 : -1.0) * y[k];
            sum += y[k];
        }
        for (size_t k = 0; k < 12; ++k)
            fed[k][t] = y[(k + 1) % 12] - sum / 6.0 + d;
        out.l[t] = static_cast<float>(accL * wet * 0.167 + in.l[t] * dry);
        out.r[t] = static_cast<float>(accR * wet * 0.167 + in.r[t] * dry);
    }
    return out;
}

struct NetworkRow {
    const char* name;
    float rate;
    int32_t sizeMs, preDelayMs;
};

class ReverbNetwork : public testing::TestWithParam<NetworkRow> {};

TEST_P(ReverbNetwork, MatchesTheNetworkWorkedOutInDoublePrecision) {
    const NetworkRow& row = GetParam();
    Stereo in = noise(40000);
    std::fill(in.l.begin() + 300, in.l.end(), 0.0f);
    std::fill(in.r.begin() + 200, in.r.end(), 0.0f);
    auto reverb = reverbAt(row.rate, row.sizeMs, row.preDelayMs, 0.5f, 0.8f);
    const Stereo got = run(*reverb, in);
    const Stereo want = referenceReverb(in, row.rate, row.sizeMs, row.preDelayMs, 0.5, 0.8);
    // The modulated read positions are floats, whose rounding the all-pass interpolation carries on
    // for a while: the error stays some 40 dB below the signal, where a misplaced tap, sign or
    // interpolation is as loud as the signal itself. Where the reference is silent, so is the reverb.
    constexpr size_t window = 4000;
    for (size_t from = 0; from < in.size(); from += window) {
        double error = 0.0, signal = 0.0;
        for (size_t i = from; i < from + window; ++i) {
            error += std::pow(got.l[i] - want.l[i], 2) + std::pow(got.r[i] - want.r[i], 2);
            signal += std::pow(want.l[i], 2) + std::pow(want.r[i], 2);
        }
        EXPECT_LE(error, 0.03 * 0.03 * signal) << "window at " << from;
    }
}

INSTANTIATE_TEST_SUITE_P(ReverbSettings, ReverbNetwork,
                         testing::Values(NetworkRow{"defaultsAt44k", 44100.0f, 4000, 20},
                                         NetworkRow{"noPreDelay", 48000.0f, 1000, 0},
                                         NetworkRow{"longPreDelay", 48000.0f, 2500, 250},
                                         NetworkRow{"preDelayClamped", 96000.0f, 1500, 400}),
                         rowName<NetworkRow>);

class ReverbBlocks : public testing::TestWithParam<int32_t> {};

TEST_P(ReverbBlocks, ImpulseResponseIsBitIdenticalRunToRunInAnyBlockSize) {
    const Stereo in = impulse(2 * 48000, 1.0f, 0.25f);
    const Stereo a = run(*reverbAt(48000.0f, 4000), in);
    const Stereo b = run(*reverbAt(48000.0f, 4000), in, GetParam());
    ASSERT_EQ(a.l, b.l);
    ASSERT_EQ(a.r, b.r);
}

INSTANTIATE_TEST_SUITE_P(ReverbBlockSizes, ReverbBlocks, testing::Values(1024, 1, 64, 1000, 4096));

struct DecayRow {
    const char* name;
    std::function<void(CReverb&)> setSize;
    int32_t sizeMs; // what that should give
};

class ReverbDecay : public testing::TestWithParam<DecayRow> {};

double levelDb(const Stereo& s, size_t from, size_t frames) {
    double sum = 0.0;
    for (size_t i = from; i < from + frames; ++i)
        sum += double{s.l[i]} * s.l[i] + double{s.r[i]} * s.r[i];
    return 10.0 * std::log10(sum / static_cast<double>(frames));
}

TEST_P(ReverbDecay, LosesSixtyDecibelsOverTheReverbTimeOnceTheHighsAreGone) {
    auto reverb = reverbAt(48000.0f, 4000);
    GetParam().setSize(*reverb);
    ASSERT_EQ(reverb->size, GetParam().sizeMs);
    // Highs fall 2.4 times as fast as lows; after a quarter of the reverb time the lows carry the tail.
    const double seconds = GetParam().sizeMs / 1000.0;
    const auto start = static_cast<size_t>(0.25 * seconds * 48000.0);
    const auto span = static_cast<size_t>(0.5 * seconds * 48000.0);
    const Stereo out = run(*reverb, impulse(start + span + 4800, 1.0f, 1.0f));
    EXPECT_NEAR((levelDb(out, start, 4800) - levelDb(out, start + span, 4800)) / 0.5, 60.0, 6.0)
        << "dB per reverb time";
}

INSTANTIATE_TEST_SUITE_P(
    ReverbSizes, ReverbDecay,
    testing::Values(DecayRow{"default", [](CReverb&) {}, 4000},
                    DecayRow{"twoSeconds", [](CReverb& r) { r.setSizeMs(2000); }, 2000},
                    DecayRow{"belowOneSecondGivesOne", [](CReverb& r) { r.setSizeMs(400); }, 1000},
                    DecayRow{"floatWordTakesWholeSeconds", [](CReverb& r) { r.setSize(2999.0f); }, 2000},
                    DecayRow{"floatWordBelowOneSecond", [](CReverb& r) { r.setSize(10.0f); }, 1000}),
    rowName<DecayRow>);

bool reverbStateIsZero(const CReverb& reverb) {
    auto lineZero = [](const MDelayLine& line) {
        return allZero(line.buffer.get(), static_cast<size_t>(line.size));
    };
    return std::all_of(reverb.modLines.begin(), reverb.modLines.end(),
                       [&](const auto& l) { return lineZero(l) && l.prev == 0.0f; }) &&
           std::all_of(reverb.lines.begin(), reverb.lines.end(), lineZero) && lineZero(reverb.preDelayLine) &&
           std::all_of(reverb.filters.begin(), reverb.filters.end(),
                       [](const MLPF1a& f) { return f.y == 0.0f; });
}

TEST(ReverbIdle, SilentInputWithoutTailLeavesTheOutputAsItWas) {
    auto reverb = reverbAt(48000.0f, 4000, 20, 1.0f, 1.0f);
    Stereo in(4096);
    for (size_t i = 0; i < in.size(); ++i)
        in.l[i] = i % 2 == 0 ? 1e-7f : -1e-7f; // 1e-11 a block
    const Stereo out = run(*reverb, in, blockFrames, 0.5f);
    EXPECT_EQ(reverb->activity, CReverb::idle);
    EXPECT_TRUE(std::all_of(out.l.begin(), out.l.end(), [](float x) { return x == 0.5f; }));
}

TEST(ReverbIdle, StopsAfterTwoSecondsOfSilentOutputInARowAndWakesInTheBlockWhereInputReturns) {
    auto reverb = reverbAt(48000.0f, 1000);
    // 2 s at 48 kHz are 93.75 blocks: the 94th silent block in a row is the one that counts past them.
    constexpr int32_t quietBlocksToIdle = 94;
    Stereo in = impulse(blockFrames, 1.0f, 1.0f);
    int32_t quietRun = 0;
    bool secondImpulse = false;
    for (int32_t block = 0; block < 1000; ++block) {
        Stereo out(blockFrames);
        reverb->process(in.l.data(), in.r.data(), out.l.data(), out.r.data(), blockFrames);
        double energy = 0.0; // in the reverb's own units: its output before wet and 0.167
        for (size_t i = 0; i < out.size(); ++i)
            energy += (double{out.l[i]} * out.l[i] + double{out.r[i]} * out.r[i]) / (0.167 * 0.167);
        ASSERT_GT(std::abs(energy / 1e-10 - 1.0), 0.01) << "a block this close to the threshold can't tell";
        quietRun = energy < 1e-10 ? quietRun + 1 : 0;
        ASSERT_EQ(reverb->activity == CReverb::idle, quietRun >= quietBlocksToIdle) << "block " << block;
        if (reverb->activity == CReverb::idle) break;
        // Silence shorter than two seconds counts for nothing once the output is loud again.
        in.l[0] = in.r[0] = quietRun == 50 && !secondImpulse ? 1.0f : 0.0f;
        secondImpulse = secondImpulse || quietRun == 50;
    }
    ASSERT_TRUE(secondImpulse);
    ASSERT_EQ(reverb->activity, CReverb::idle);
    EXPECT_TRUE(reverbStateIsZero(*reverb));

    const Stereo wake = impulse(blockFrames, 1.0f, 0.0f, 700);
    reverb->dry = 0.25f;
    const Stereo out = run(*reverb, wake, blockFrames, 0.5f);
    EXPECT_EQ(reverb->activity, CReverb::running);
    EXPECT_TRUE(std::all_of(out.l.begin(), out.l.begin() + 700, [](float x) { return x == 0.5f; }));
    EXPECT_FLOAT_EQ(out.l[700], 0.5f + 0.5f * 0.167f + 0.25f);
    EXPECT_FLOAT_EQ(out.r[700], 0.5f + 0.5f * 0.167f);
}

TEST(ReverbIdle, SwitchingOffClearsTheTail) {
    auto reverb = reverbAt(48000.0f, 4000);
    run(*reverb, impulse(20000, 1.0f, 1.0f));
    ASSERT_FALSE(reverbStateIsZero(*reverb));
    reverb->setEnabled(false);
    EXPECT_TRUE(reverbStateIsZero(*reverb));
    EXPECT_EQ(reverb->activity, CReverb::idle);
}

// ---------------------------------------------------------------------------------------------------
// Chorus

// The LFO tables from their definitions: raised sine, triangle 0 -> 1 -> 0, saw, over 131,072 steps.
double lfoValue(int32_t wave, double phase) {
    const auto i = static_cast<double>(static_cast<int64_t>(phase) & 131071);
    if (wave == 1) return i < lfoSize / 2 ? i / (lfoSize / 2) : (lfoSize - i) / (lfoSize / 2);
    if (wave == 2) return i / lfoSize;
    return 0.5 + 0.5 * std::sin(2.0 * pi * i / lfoSize);
}

// LFO phase at each frame by the shared rule: a step per sample, one cycle taken off at a block's end.
std::vector<double> lfoPhases(double inc, size_t frames) {
    std::vector<double> phases(frames);
    double phase = 0.0;
    for (size_t i = 0; i < frames; ++i) {
        phases[i] = phase;
        phase += inc;
        if ((i + 1) % blockFrames == 0 && phase >= lfoSize) phase -= lfoSize;
    }
    return phases;
}

struct ChorusRow {
    const char* name;
    float delayMs, depth, rateHz, phaseDeg, wave;
    int32_t sync, mul, div;
    float tempo;
};

class ChorusTap : public testing::TestWithParam<ChorusRow> {};

// Each output sample is the input read, with linear interpolation, at delay(n) = S + 1 - depth S lfo(n)
// samples back, S the delay in samples: from S + 1 down to 1 sample as depth and LFO go to 1.
TEST_P(ChorusTap, ReadsTheInputAtTheDelayTheLfoGives) {
    const ChorusRow& row = GetParam();
    CChorus chorus;
    chorus.setSampleRate(48000.0f);
    chorus.setDelay(row.delayMs);
    chorus.depth = row.depth;
    chorus.setFrequency(row.rateHz);
    chorus.setPhase(row.phaseDeg);
    chorus.wave = row.wave;
    chorus.sync = row.sync;
    chorus.mul = row.mul;
    chorus.div = row.div;
    chorus.tempo = row.tempo;
    chorus.dry = 0.0f;
    chorus.wet = 1.0f;
    chorus.setEnabled(true);
    // Beyond two trips round the 65,536-sample ring, so reads straddle the wrap of the write position.
    const Stereo in = noise(150000);
    const Stereo out = run(chorus, in);

    const double s = 48000.0 * row.delayMs / 1000.0;
    const double inc = row.sync != 0 ? row.div * lfoSize * row.tempo / (row.mul * 48000.0 * 60.0)
                                     : row.rateHz * lfoSize / 48000.0;
    const double offset = row.phaseDeg * lfoSize / 360.0;
    const std::vector<double> phases = lfoPhases(inc, in.size());
    const auto wave = static_cast<int32_t>(row.wave);
    auto readBack = [](const std::vector<float>& x, double at) {
        const double whole = std::floor(at);
        const auto i = static_cast<size_t>(whole);
        return x[i] + (x[i + 1] - x[i]) * (at - whole);
    };
    for (size_t n = static_cast<size_t>(s) + 2; n < in.size(); ++n) {
        const double delayL = s + 1.0 - row.depth * s * lfoValue(wave, phases[n]);
        const double delayR = s + 1.0 - row.depth * s * lfoValue(wave, phases[n] + offset);
        ASSERT_NEAR(out.l[n], readBack(in.l, static_cast<double>(n) - delayL), 2e-4) << "left, frame " << n;
        ASSERT_NEAR(out.r[n], readBack(in.r, static_cast<double>(n) - delayR), 2e-4) << "right, frame " << n;
    }
}

INSTANTIATE_TEST_SUITE_P(
    ChorusLfo, ChorusTap,
    testing::Values(ChorusRow{"defaults", 20.0f, 0.1f, 3.0f, 90.0f, 0.0f, 0, 1, 1, 120.0f},
                    ChorusRow{"depthZeroIsStatic", 20.0f, 0.0f, 3.0f, 90.0f, 0.0f, 0, 1, 1, 120.0f},
                    ChorusRow{"fractionalDelayStatic", 7.01f, 0.0f, 1.0f, 0.0f, 0.0f, 0, 1, 1, 120.0f},
                    ChorusRow{"fullDepthTriangle", 5.0f, 1.0f, 0.7f, 180.0f, 1.0f, 0, 1, 1, 120.0f},
                    ChorusRow{"fastRate", 2.5f, 0.5f, 10.0f, 45.0f, 0.0f, 0, 1, 1, 120.0f},
                    ChorusRow{"syncedTwoCyclesInThreeBeats", 12.0f, 0.3f, 3.0f, 90.0f, 0.0f, 1, 3, 2,
                              140.0f}),
    rowName<ChorusRow>);

class ChorusFeedback : public testing::TestWithParam<float> {};

TEST_P(ChorusFeedback, RepeatsEveryDelayPlusOneSamplesTimesTheFeedback) {
    const float fb = GetParam();
    CChorus chorus;
    chorus.setSampleRate(48000.0f);
    chorus.setDelay(20.0f); // 960 samples: the tap is 961 behind
    chorus.depth = 0.0f;
    chorus.setFeedback(fb);
    chorus.dry = 0.25f;
    chorus.wet = 0.5f;
    chorus.setEnabled(true);
    const Stereo out = run(chorus, impulse(4000, 1.0f, -1.0f));
    EXPECT_EQ(out.l[0], 0.25f);
    float level = 0.5f;
    for (size_t i = 1; i < out.size(); ++i) {
        const bool repeat = i % 961 == 0;
        ASSERT_FLOAT_EQ(out.l[i], repeat ? level : 0.0f) << i;
        ASSERT_FLOAT_EQ(out.r[i], repeat ? -level : 0.0f) << i;
        if (repeat) level *= fb;
    }
}

INSTANTIATE_TEST_SUITE_P(ChorusGains, ChorusFeedback, testing::Values(0.0f, 0.5f, -0.8f));

// ---------------------------------------------------------------------------------------------------
// Phaser

// Response at angular frequency omega for coefficient c: six sections A(z) = (z^-1 - c) / (1 - c z^-1),
// their output fed back to their input one sample later with gain fb, mixed with the dry input.
std::complex<double> phaserResponse(double omega, double c, double fb, double dry, double wet) {
    const std::complex<double> z1 = std::polar(1.0, -omega);
    const std::complex<double> a = std::pow((z1 - c) / (1.0 - c * z1), 6);
    return dry + wet * a / (1.0 - fb * z1 * a);
}

Stereo cosine(double hz, size_t frames) {
    Stereo s(frames);
    for (size_t i = 0; i < frames; ++i)
        s.l[i] = s.r[i] = static_cast<float>(std::cos(2.0 * pi * hz * static_cast<double>(i) / 48000.0));
    return s;
}

struct StaticRow {
    const char* name;
    float cornerHz, feedback, probeHz;
};

class PhaserStatic : public testing::TestWithParam<StaticRow> {};

TEST_P(PhaserStatic, EqualRangeEndsGiveAFixedAllPassChain) {
    const StaticRow& row = GetParam();
    CPhaser phaser;
    phaser.setSampleRate(48000.0f);
    phaser.setRangeMin(row.cornerHz);
    phaser.setRangeMax(row.cornerHz);
    phaser.feedback = row.feedback;
    phaser.setFrequency(5.0f);
    phaser.setPhase(90.0f);
    const Stereo out = run(phaser, cosine(row.probeHz, 96000));

    const double w = 2.0 * row.cornerHz / 48000.0, omega = 2.0 * pi * row.probeHz / 48000.0;
    const std::complex<double> want =
        phaserResponse(omega, (1.0 - w) / (1.0 + w), row.feedback * 0.998, 0.5, 0.5);
    for (const auto* side : {&out.l, &out.r}) {
        std::complex<double> got = 0.0; // over whole periods of the second half, once settled
        for (size_t i = 48000; i < 96000; ++i)
            got += double{(*side)[i]} * std::polar(2.0 / 48000.0, -omega * static_cast<double>(i));
        EXPECT_NEAR(got.real(), want.real(), 1e-3);
        EXPECT_NEAR(got.imag(), want.imag(), 1e-3);
    }
}

INSTANTIATE_TEST_SUITE_P(PhaserCorners, PhaserStatic,
                         testing::Values(StaticRow{"atTheCorner", 1000.0f, 0.0f, 1000.0f},
                                         StaticRow{"defaultFeedbackBelow", 2000.0f, 0.7f, 500.0f},
                                         StaticRow{"negativeFeedbackAbove", 500.0f, -0.5f, 3000.0f},
                                         StaticRow{"highCorner", 8000.0f, 0.3f, 12000.0f},
                                         StaticRow{"fullFeedbackStaysStable", 3000.0f, 1.0f, 2000.0f}),
                         rowName<StaticRow>);

struct SweepRow {
    const char* name;
    int32_t wave;
    float rateHz, phaseDeg;
};

class PhaserSweep : public testing::TestWithParam<SweepRow> {};

// With a slow LFO the phaser is the static chain of the moment: a probe tone's level, window by window,
// follows the response at the coefficient the LFO gives, the right side `phase` degrees on.
TEST_P(PhaserSweep, ProbeLevelFollowsTheNotchAsTheLfoMovesIt) {
    const SweepRow& row = GetParam();
    constexpr double low = 300.0, high = 3000.0, probe = 1000.0;
    CPhaser phaser;
    phaser.setSampleRate(48000.0f);
    phaser.setRangeMin(static_cast<float>(low));
    phaser.setRangeMax(static_cast<float>(high));
    phaser.feedback = 0.0f;
    phaser.wave = row.wave;
    phaser.setFrequency(row.rateHz);
    phaser.setPhase(row.phaseDeg);
    const Stereo out = run(phaser, cosine(probe, 4 * 48000));

    const double inc = row.rateHz * lfoSize / 48000.0, offset = row.phaseDeg * lfoSize / 360.0;
    const std::vector<double> phases = lfoPhases(inc, out.size());
    auto power = [&](double phase) {
        const double w =
            (2.0 * high / 48000.0 - 2.0 * low / 48000.0) * lfoValue(row.wave, phase) + 2.0 * low / 48000.0;
        return 0.5 *
               std::norm(phaserResponse(2.0 * pi * probe / 48000.0, (1.0 - w) / (1.0 + w), 0.0, 0.5, 0.5));
    };
    constexpr size_t window = 480; // 10 periods of the probe
    // The saw's jump back rings through the chain for a moment: the windows round it are left out.
    auto jumpsNear = [&](double lead, size_t from) {
        return std::floor((phases[from - window] + lead) / lfoSize) !=
               std::floor((phases[from + window] + lead) / lfoSize);
    };
    double deepest = 1.0;
    for (size_t from = 4800; from + 2 * window <= out.size(); from += window) {
        double gotL = 0.0, gotR = 0.0, wantL = 0.0, wantR = 0.0;
        for (size_t i = from; i < from + window; ++i) {
            gotL += double{out.l[i]} * out.l[i];
            gotR += double{out.r[i]} * out.r[i];
            wantL += power(phases[i]);
            wantR += power(phases[i] + inc + offset); // the right side reads after the left stepped the LFO
        }
        if (!jumpsNear(0.0, from)) {
            EXPECT_NEAR(std::sqrt(gotL / window), std::sqrt(wantL / window), 0.02)
                << "left, window at " << from;
        }
        if (!jumpsNear(inc + offset, from)) {
            EXPECT_NEAR(std::sqrt(gotR / window), std::sqrt(wantR / window), 0.02)
                << "right, window at " << from;
        }
        deepest = std::min(deepest, gotL / window);
    }
    EXPECT_LT(deepest, 0.01) << "the notch passes the probe";
}

INSTANTIATE_TEST_SUITE_P(PhaserWaves, PhaserSweep,
                         testing::Values(SweepRow{"sine", 0, 0.5f, 0.0f},
                                         SweepRow{"triangleQuarterApart", 1, 0.4f, 90.0f},
                                         SweepRow{"sawHalfApart", 2, 0.3f, 180.0f}),
                         rowName<SweepRow>);

// ---------------------------------------------------------------------------------------------------
// All four

uint32_t asWord(float value) {
    return std::bit_cast<uint32_t>(value);
}
uint32_t asWord(int32_t value) {
    return static_cast<uint32_t>(value);
}

struct KindRow {
    const char* name;
    int32_t kind;
    float dry, wet;
    std::function<void(CFX&)> longTail;
    std::function<bool(const CFX&)> stateIsZero;
    std::vector<uint32_t> words;                 // a stored block's words, in their order
    std::function<bool(const CFX&)> wordsLoaded; // the fields those words stand for
};

class TimeEffect : public testing::TestWithParam<KindRow> {
  protected:
    std::unique_ptr<CFX> make() const {
        registerTimeEffects();
        return std::unique_ptr<CFX>(createFX(GetParam().kind));
    }
    std::unique_ptr<CFX> ringing() const {
        auto fx = make();
        fx->setSampleRate(48000.0f);
        GetParam().longTail(*fx);
        fx->setEnabled(true);
        return fx;
    }
};

TEST_P(TimeEffect, IsMadeByItsKindWithItsNameAndLevels) {
    auto fx = make();
    EXPECT_EQ(fx->subKind, GetParam().kind);
    EXPECT_STREQ(fx->getName().c_str(), GetParam().name);
    EXPECT_EQ(fx->dry, GetParam().dry);
    EXPECT_EQ(fx->wet, GetParam().wet);
}

TEST_P(TimeEffect, TenSecondsOfSilenceAfterAnImpulseLeaveEveryStateExactlyZero) {
    auto fx = ringing();
    run(*fx, impulse(blockFrames, 1.0f, -0.7f));
    ASSERT_FALSE(GetParam().stateIsZero(*fx)) << "the impulse went in";
    const Stereo out = run(*fx, Stereo(10 * 48000));
    EXPECT_TRUE(GetParam().stateIsZero(*fx));
    EXPECT_EQ(firstNonZero(out.l, out.size() - blockFrames), out.size());
    EXPECT_EQ(firstNonZero(out.r, out.size() - blockFrames), out.size());
}

TEST_P(TimeEffect, ProcessAllocatesNothingAndTakesNoLock) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    auto fx = ringing();
    Stereo loud = noise(blockFrames), quiet(blockFrames), out(blockFrames);
    int64_t allocations = 0, locks = 0;
    {
        rtprobe::Scope probe;
        // Loud, then silent long enough for the reverb to go idle and clear, then loud to wake it.
        for (int32_t block = 0; block < 300; ++block) {
            const Stereo& in = block < 20 || block > 280 ? loud : quiet;
            fx->process(in.l.data(), in.r.data(), out.l.data(), out.r.data(), blockFrames);
        }
        allocations = probe.allocations();
        locks = probe.locks();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(locks, 0);
}

TEST_P(TimeEffect, LoadTakesTheWordsInStoredOrderAndSaveGivesThemBack) {
    FXWords stored;
    std::copy(GetParam().words.begin(), GetParam().words.end(), stored.word);
    auto fx = make();
    fx->loadWords(stored);
    EXPECT_TRUE(GetParam().wordsLoaded(*fx));
    FXWords saved; // words the kind has set to a mark, so that a word it doesn't write shows
    std::fill_n(saved.word, GetParam().words.size(), 0xDEADBEEFu);
    fx->saveWords(saved);
    for (int32_t w = 0; w < FXWords::count; ++w)
        EXPECT_EQ(saved.word[w], stored.word[w]) << "word " << w;
}

const KindRow delayKind{
    "Delay",
    fxDelay,
    1.0f,
    0.5f,
    [](CFX& fx) {
        auto& d = static_cast<CDelay&>(fx);
        d.setSync(0);
        d.setDelayTimeRight(130.0f);
        d.cross = 0.3f;
    },
    [](const CFX& fx) {
        const auto& d = static_cast<const CDelay&>(fx);
        return allZero(d.bufL, CDelay::bufferFrames) && allZero(d.bufR, CDelay::bufferFrames);
    },
    {asWord(0.3f), asWord(0), asWord(3), asWord(8), asWord(5), asWord(16), asWord(125.5f), asWord(333.0f),
     asWord(0.4f)},
    [](const CFX& fx) {
        const auto& d = static_cast<const CDelay&>(fx);
        return std::tuple(d.feedback, d.sync, d.mulLeft, d.divLeft, d.mulRight, d.divRight, d.timeLeft,
                          d.timeRight, d.cross) == std::tuple(0.3f, 0, 3, 8, 5, 16, 125.5f, 333.0f, 0.4f);
    }};

const KindRow reverbKind{"Reverb",
                         fxReverb,
                         1.0f,
                         0.2f,
                         [](CFX& fx) { static_cast<CReverb&>(fx).setSizeMs(1000); },
                         [](const CFX& fx) { return reverbStateIsZero(static_cast<const CReverb&>(fx)); },
                         {asWord(75), asWord(7000.0f)},
                         [](const CFX& fx) {
                             const auto& r = static_cast<const CReverb&>(fx);
                             return r.preDelay == 75 && r.size == 7000;
                         }};

const KindRow chorusKind{"Chorus",
                         fxChorus,
                         0.5f,
                         0.5f,
                         [](CFX& fx) { static_cast<CChorus&>(fx).setFeedback(0.9f); },
                         [](const CFX& fx) {
                             const auto& c = static_cast<const CChorus&>(fx);
                             return allZero(c.bufL.get(), CChorus::bufferFrames) &&
                                    allZero(c.bufR.get(), CChorus::bufferFrames);
                         },
                         {asWord(35.0f), asWord(0.6f), asWord(120.0f), asWord(-0.25f), asWord(1.5f)},
                         [](const CFX& fx) {
                             const auto& c = static_cast<const CChorus&>(fx);
                             return std::tuple(c.delay, c.depth, c.phase, c.feedback, c.rate) ==
                                    std::tuple(35.0f, 0.6f, 120.0f, -0.25f, 1.5f);
                         }};

const KindRow phaserKind{"Phaser",
                         fxPhaser,
                         0.5f,
                         0.5f,
                         [](CFX& fx) { static_cast<CPhaser&>(fx).feedback = -1.0f; },
                         [](const CFX& fx) {
                             const auto& p = static_cast<const CPhaser&>(fx);
                             auto zero = [](float x) { return x == 0.0f; };
                             return p.memL == 0.0f && p.memR == 0.0f &&
                                    std::all_of(p.stateL.begin(), p.stateL.end(), zero) &&
                                    std::all_of(p.stateR.begin(), p.stateR.end(), zero);
                         },
                         {asWord(0.02f), asWord(-0.4f), asWord(45.0f), asWord(150.0f), asWord(9000.0f)},
                         [](const CFX& fx) {
                             const auto& p = static_cast<const CPhaser&>(fx);
                             return std::tuple(p.rate, p.feedback, p.phase, p.rangeMin, p.rangeMax) ==
                                    std::tuple(0.02f, -0.4f, 45.0f, 150.0f, 9000.0f);
                         }};

// One instantiation a kind, so that each kind's name leads the names of its tests.
INSTANTIATE_TEST_SUITE_P(Delay, TimeEffect, testing::Values(delayKind), rowName<KindRow>);
INSTANTIATE_TEST_SUITE_P(Reverb, TimeEffect, testing::Values(reverbKind), rowName<KindRow>);
INSTANTIATE_TEST_SUITE_P(Chorus, TimeEffect, testing::Values(chorusKind), rowName<KindRow>);
INSTANTIATE_TEST_SUITE_P(Phaser, TimeEffect, testing::Values(phaserKind), rowName<KindRow>);

} // namespace
