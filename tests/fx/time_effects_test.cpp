// Delay, reverb, chorus and phaser against references worked out here from their formulas: echo times
// and levels in closed form, the reverb's network in double precision, the chorus as the input read at
// the delay its LFO gives, the phaser from its all-pass transfer function. Last, what every kind shares.

#include "fx/bitcrusher.h"
#include "fx/chorus.h"
#include "fx/compressor.h"
#include "fx/delay.h"
#include "fx/effects.h"
#include "fx/filter.h"
#include "fx/phaser.h"
#include "fx/reverb.h"
#include "fx/time_effects.h"
#include "support/rt_probe.h"
#include "support/stereo.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <complex>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <numbers>
#include <tuple>
#include <vector>

namespace {

using namespace stereotest;

constexpr size_t blockFrames = 1024;
constexpr double pi = std::numbers::pi;
constexpr double lfoSize = 131072.0;

bool allEqual(const std::vector<float>& v, size_t to, float value) {
    return std::all_of(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(to), [&](float x) { return x == value; });
}

// A delay at 48 kHz with times in ms, of which only the echoes are heard.
void at48k(CDelay& delay, float feedback = 0.5f) {
    delay.setSampleRate(48000.0f);
    delay.sync = 0;
    delay.feedback = feedback;
    delay.dry = 0.0f;
    delay.wet = 1.0f;
}

TEST(Delay, FirstTwoEchoesLandOnTheExactSampleAtFeedbackTimesWet) {
    struct Row {
        int32_t rate, sync, tempo;
        int32_t tenthsMsL, mulL, divL; // the left line: tenths of a ms, or with sync mul beats of div
        int32_t tenthsMsR, mulR, divR;
    };
    // Truncated ms at 44.1 kHz, the one-sample floor, a tempo with a remainder, the buffer's limit.
    for (const Row& row : {Row{44100, 0, 120, 105, 1, 1, 1234, 1, 1}, Row{48000, 0, 120, 0, 1, 1, 1, 1, 1},
                           Row{48000, 1, 133, 0, 3, 8, 0, 5, 16}, Row{48000, 1, 10, 0, 32, 1, 0, 1, 1}}) {
        auto frames = [&](int32_t tenthsMs, int32_t mul, int32_t div) {
            const int64_t n = row.sync != 0 ? int64_t{row.rate} * 60 * mul / (int64_t{div} * row.tempo)
                                            : int64_t{row.rate} * tenthsMs / 10000;
            return static_cast<size_t>(std::clamp<int64_t>(n, 1, 480000));
        };
        CDelay delay;
        delay.setSampleRate(static_cast<float>(row.rate));
        delay.tempo = static_cast<float>(row.tempo);
        delay.sync = row.sync;
        std::tie(delay.mulLeft, delay.divLeft, delay.mulRight, delay.divRight) = std::tie(row.mulL, row.divL, row.mulR, row.divR);
        delay.timeLeft = static_cast<float>(row.tenthsMsL) / 10.0f;
        delay.timeRight = static_cast<float>(row.tenthsMsR) / 10.0f;
        delay.feedback = 0.6f;
        delay.dry = 0.0f;
        delay.wet = 0.8f;
        delay.setEnabled(true);
        const size_t dL = frames(row.tenthsMsL, row.mulL, row.divL), dR = frames(row.tenthsMsR, row.mulR, row.divR);
        const Stereo out = run(delay, impulse(2 * std::max(dL, dR) + 5, 1.0f, 1.0f));
        for (const auto& [side, d] : {std::pair{&out.l, dL}, std::pair{&out.r, dR}}) {
            ASSERT_EQ(firstNonZero(*side), d) << "rate " << row.rate << ", tempo " << row.tempo;
            EXPECT_FLOAT_EQ((*side)[d], 0.6f * 0.8f);
            ASSERT_EQ(firstNonZero(*side, d + 1), 2 * d);
            EXPECT_FLOAT_EQ((*side)[2 * d], 0.6f * 0.6f * 0.8f);
        }
    }
}

// Echoes k = 1, 2, 3 of a unit impulse through two lines of equal length, read straight out. Each line
// takes its own echo times 1 - c and the other's times c; the right input enters times 1 - c, the left
// one whole; all that is written goes through the feedback f.
TEST(Delay, EchoesCrossBetweenTheLinesAsTheirFeedsGive) {
    constexpr size_t d = 120; // 2.5 ms at 48 kHz
    for (const auto& [c, f, fromLeft] :
         {std::tuple{0.25, 0.7, true}, std::tuple{0.25, 0.7, false}, std::tuple{1.0, 0.9, false}}) {
        const double ic = 1.0 - c;
        using Echoes = std::array<std::array<double, 3>, 2>;
        const Echoes want = fromLeft ? Echoes{{{f, ic * f * f, (c * c + ic * ic) * f * f * f}, {0.0, c * f * f, 2.0 * c * ic * f * f * f}}}
                                     : Echoes{{{0.0, c * ic * f * f, 2.0 * c * ic * ic * f * f * f},
                                               {ic * f, ic * ic * f * f, (ic * ic * ic + c * c * ic) * f * f * f}}};
        CDelay delay;
        at48k(delay, static_cast<float>(f));
        delay.timeLeft = delay.timeRight = 2.5f;
        delay.cross = static_cast<float>(c);
        delay.setEnabled(true);
        const Stereo out = run(delay, impulse(4 * d, fromLeft ? 1.0f : 0.0f, fromLeft ? 0.0f : 1.0f));
        for (size_t i = 0; i < out.size(); ++i) {
            const bool echo = i > 0 && i % d == 0;
            ASSERT_NEAR(out.l[i], echo ? want[0][i / d - 1] : 0.0, 1e-6) << "left, frame " << i << ", cross " << c;
            ASSERT_NEAR(out.r[i], echo ? want[1][i / d - 1] : 0.0, 1e-6) << "right, frame " << i << ", cross " << c;
        }
    }
}

TEST(Delay, AddsPannedEchoesAndDryOntoWhatTheOutputHoldsButNothingWithoutBuffers) {
    CDelay delay;
    at48k(delay);
    delay.timeLeft = 1.0f;  // 48 samples
    delay.timeRight = 2.0f; // 96 samples
    delay.panLeft = 0.0f;   // the left echo half to each side
    delay.panRight = 0.5f;  // the right echo a quarter left, three quarters right
    delay.dry = 0.75f;
    Stereo in = impulse(100, 1.0f, -1.0f);
    in.l[10] = 0.5f;
    EXPECT_TRUE(allEqual(run(delay, in, blockFrames, 0.25f).l, in.size(), 0.25f));

    delay.setEnabled(true);
    const Stereo out = run(delay, in, blockFrames, 0.25f);
    for (size_t i = 0; i < out.size(); ++i) {
        // On the left line echoes of 1 at 48 and 96 (0.5, 0.25) and of 0.5 at 58; on the right, of -1 at 96.
        const float echoL = (i == 48 ? 0.5f : 0.0f) + (i == 58 || i == 96 ? 0.25f : 0.0f);
        const float echoR = i == 96 ? -0.5f : 0.0f;
        ASSERT_FLOAT_EQ(out.l[i], 0.25f + 0.75f * in.l[i] + 0.5f * echoL + 0.25f * echoR) << i;
        ASSERT_FLOAT_EQ(out.r[i], 0.25f + 0.75f * in.r[i] + 0.5f * echoL + 0.75f * echoR) << i;
    }
}

TEST(Delay, RightTapLeadsByTheOffsetWrappedIntoTheLineAndAShorterTimeRestartsInsideIt) {
    // A 10 ms right line is 480 samples; 1 ms is 48.
    for (const auto& [offsetMs, echo] : {std::pair{1.0f, 432u}, std::pair{-1.0f, 48u}, std::pair{11.0f, 432u}}) {
        CDelay delay;
        at48k(delay);
        delay.timeRight = 10.0f;
        delay.tapOffset = offsetMs;
        delay.setEnabled(true);
        EXPECT_EQ(firstNonZero(run(delay, impulse(600, 0.0f, 1.0f)).r, 1), echo) << offsetMs << " ms";
    }
    CDelay delay;
    at48k(delay);
    delay.timeLeft = 5000.0f;
    delay.setEnabled(true);
    run(delay, Stereo(300000));
    ASSERT_GT(delay.posL, 480);
    delay.timeLeft = 10.0f;
    EXPECT_EQ(firstNonZero(run(delay, impulse(1000, 1.0f, 0.0f, 100)).l, 101), 100u + 480u);
}

std::unique_ptr<CReverb> reverbAt(float rate, int32_t sizeMs, int32_t preDelayMs = 20, float dry = 0.0f, float wet = 1.0f) {
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
Stereo referenceReverb(const Stereo& in, double rate, int32_t sizeMs, int32_t preDelayMs, double dry, double wet) {
    constexpr std::array<int32_t, 12> length = {601, 691, 773, 839, 919, 997, 1061, 1093, 1129, 1151, 1171, 1187};
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
        const auto time = static_cast<double>(t);
        const double x = (double{in.l[t]} + in.r[t]) / 2.0;
        const double d = t >= pre ? (double{in.l[t - pre]} + in.r[t - pre]) / 2.0 : 0.0;
        double accL = x, accR = x, sum = 0.0;
        for (size_t k = 0; k < 12; ++k) {
            double read = at(k, time - length[k]);
            if (k < 6) {
                // Lines 0..5 swing 6 samples either way at 2 Hz of 44.1 kHz, an eighth of a cycle apart.
                const auto step = static_cast<int64_t>((k / 8.0 + time * 2.0 / 44100.0) * 65536.0) & 65535;
                const double m = time - length[k] + 6.0 * std::sin(2.0 * pi * static_cast<double>(step) / 65536.0);
                const double whole = std::floor(m);
                read = prev[k] = at(k, whole) + (at(k, whole + 1.0) - prev[k]) * (m - whole);
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

TEST(Reverb, MatchesTheNetworkWorkedOutInDoublePrecision) {
    Stereo in = noise(40000);
    std::fill(in.l.begin() + 300, in.l.end(), 0.0f);
    std::fill(in.r.begin() + 200, in.r.end(), 0.0f);
    // The defaults at 44.1 kHz; no pre-delay and a size below a second; a pre-delay beyond its limit.
    for (const auto& [rate, sizeMs, preDelayMs] :
         {std::tuple{44100.0f, 4000, 20}, std::tuple{48000.0f, 400, 0}, std::tuple{96000.0f, 1500, 400}}) {
        const Stereo got = run(*reverbAt(rate, sizeMs, preDelayMs, 0.5f, 0.8f), in);
        // Block boundaries must not show: a frame at a time and long blocks give the same bits.
        for (const size_t block : {1u, 4096u}) {
            const Stereo other = run(*reverbAt(rate, sizeMs, preDelayMs, 0.5f, 0.8f), in, block);
            ASSERT_TRUE(other.l == got.l && other.r == got.r) << "block " << block << ", rate " << rate;
        }
        const Stereo want = referenceReverb(in, rate, sizeMs, preDelayMs, 0.5, 0.8);
        // The modulated read positions are floats, whose rounding the all-pass interpolation carries on
        // for a while: the error stays some 40 dB below the signal, where a misplaced tap, sign or
        // interpolation is as loud as the signal itself.
        constexpr size_t window = 4000;
        for (size_t from = 0; from < in.size(); from += window) {
            double error = 0.0, signal = 0.0;
            for (size_t i = from; i < from + window; ++i) {
                error += std::pow(got.l[i] - want.l[i], 2) + std::pow(got.r[i] - want.r[i], 2);
                signal += std::pow(want.l[i], 2) + std::pow(want.r[i], 2);
            }
            EXPECT_LE(error, 0.03 * 0.03 * signal) << "window at " << from << ", rate " << rate;
        }
    }
}

bool reverbStateIsZero(const CReverb& reverb) {
    auto lineZero = [](const MDelayLine& line) { return allZero(line.buffer.get(), static_cast<size_t>(line.size)); };
    return std::all_of(reverb.modLines.begin(), reverb.modLines.end(),
                       [&](const auto& l) { return lineZero(l) && l.prev == 0.0f; }) &&
           std::all_of(reverb.lines.begin(), reverb.lines.end(), lineZero) && lineZero(reverb.preDelayLine) &&
           std::all_of(reverb.filters.begin(), reverb.filters.end(), [](const MLPF1a& f) { return f.y == 0.0f; });
}

TEST(Reverb, StopsAfterTwoSecondsOfSilentOutputInARowAndWakesInTheBlockWhereInputReturns) {
    auto reverb = reverbAt(48000.0f, 1000, 20, 1.0f);
    // Input too faint to count (1e-11 a block) leaves a fresh reverb idle and the output as it was.
    Stereo faint(4096);
    for (size_t i = 0; i < faint.size(); ++i)
        faint.l[i] = i % 2 == 0 ? 1e-7f : -1e-7f;
    EXPECT_TRUE(allEqual(run(*reverb, faint, blockFrames, 0.5f).l, faint.size(), 0.5f));
    EXPECT_EQ(reverb->activity, CReverb::idle);
    reverb->dry = 0.0f;
    // 2 s at 48 kHz are 93.75 blocks: the 94th silent block in a row is the one that counts past them.
    constexpr int32_t quietBlocksToIdle = 94;
    Stereo in = impulse(blockFrames, 1.0f, 1.0f);
    int32_t quietRun = 0;
    bool secondImpulse = false;
    for (int32_t block = 0; block < 1000; ++block) {
        const Stereo out = run(*reverb, in);
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

    reverb->dry = 0.25f;
    const Stereo out = run(*reverb, impulse(blockFrames, 1.0f, 0.0f, 700), blockFrames, 0.5f);
    EXPECT_EQ(reverb->activity, CReverb::running);
    EXPECT_TRUE(allEqual(out.l, 700, 0.5f));
    EXPECT_FLOAT_EQ(out.l[700], 0.5f + 0.5f * 0.167f + 0.25f);
    EXPECT_FLOAT_EQ(out.r[700], 0.5f + 0.5f * 0.167f);

    ASSERT_FALSE(reverbStateIsZero(*reverb));
    reverb->setEnabled(false); // switching off clears the tail
    EXPECT_TRUE(reverbStateIsZero(*reverb));
    EXPECT_EQ(reverb->activity, CReverb::idle);
}

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

// Each output sample is the input read, with linear interpolation, at delay(n) = S + 1 - depth S lfo(n)
// samples back, S the delay in samples: from S + 1 down to 1 sample as depth and LFO go to 1.
TEST(Chorus, ReadsTheInputAtTheDelayTheLfoGives) {
    // Beyond two trips round the 65,536-sample ring, so reads straddle the wrap of the write position.
    const Stereo in = noise(150000);
    // delay ms, depth, rate Hz, phase degrees, wave, sync, mul, div, tempo
    for (const auto& row : {std::tuple{20.0f, 0.1f, 3.0f, 90.0f, 0.0f, 0, 1, 1, 120.0f},
                            std::tuple{5.0f, 1.0f, 0.7f, 180.0f, 1.0f, 0, 1, 1, 120.0f},
                            std::tuple{12.0f, 0.3f, 3.0f, 90.0f, 0.0f, 1, 3, 2, 140.0f}}) {
        CChorus c;
        c.setSampleRate(48000.0f);
        std::tie(c.delay, c.depth, c.rate, c.phase, c.wave, c.sync, c.mul, c.div, c.tempo) = row;
        c.dry = 0.0f;
        c.wet = 1.0f;
        c.setEnabled(true);
        const Stereo out = run(c, in);

        const double s = 48000.0 * c.delay / 1000.0;
        const double inc = c.sync != 0 ? c.div * lfoSize * c.tempo / (c.mul * 48000.0 * 60.0) : c.rate * lfoSize / 48000.0;
        const std::vector<double> phases = lfoPhases(inc, in.size());
        const auto wave = static_cast<int32_t>(c.wave);
        auto readBack = [](const std::vector<float>& x, double at) {
            const double whole = std::floor(at);
            const auto i = static_cast<size_t>(whole);
            return x[i] + (x[i + 1] - x[i]) * (at - whole);
        };
        for (size_t n = static_cast<size_t>(s) + 2; n < in.size(); ++n) {
            const double delayL = s + 1.0 - c.depth * s * lfoValue(wave, phases[n]);
            const double delayR = s + 1.0 - c.depth * s * lfoValue(wave, phases[n] + c.phase * lfoSize / 360.0);
            ASSERT_NEAR(out.l[n], readBack(in.l, static_cast<double>(n) - delayL), 2e-4) << "left, frame " << n << ", wave " << wave;
            ASSERT_NEAR(out.r[n], readBack(in.r, static_cast<double>(n) - delayR), 2e-4) << "right, frame " << n << ", wave " << wave;
        }
    }
}

TEST(Chorus, RepeatsEveryDelayPlusOneSamplesTimesTheFeedback) {
    constexpr float fb = -0.8f;
    CChorus chorus;
    chorus.setSampleRate(48000.0f);
    chorus.delay = 20.0f; // 960 samples: the tap is 961 behind
    chorus.depth = 0.0f;
    chorus.feedback = fb;
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

void at48k(CPhaser& phaser, float low, float high, float feedback, int32_t wave, float rateHz, float phaseDeg) {
    phaser.setSampleRate(48000.0f);
    std::tie(phaser.rangeMin, phaser.rangeMax, phaser.feedback, phaser.wave, phaser.rate, phaser.phase) =
        std::tuple(low, high, feedback, wave, rateHz, phaseDeg);
}

TEST(Phaser, EqualRangeEndsGiveAFixedAllPassChain) {
    // At the corner without feedback, negative feedback above it, full feedback held below 1.
    for (const auto& [cornerHz, feedback, probeHz] :
         {std::tuple{1000.0f, 0.0f, 1000.0f}, std::tuple{500.0f, -0.5f, 3000.0f}, std::tuple{3000.0f, 1.0f, 2000.0f}}) {
        CPhaser phaser;
        at48k(phaser, cornerHz, cornerHz, feedback, 0, 5.0f, 90.0f);
        const Stereo out = run(phaser, cosine(probeHz, 96000));
        const double w = 2.0 * cornerHz / 48000.0, omega = 2.0 * pi * probeHz / 48000.0;
        const std::complex<double> want = phaserResponse(omega, (1.0 - w) / (1.0 + w), feedback * 0.998, 0.5, 0.5);
        for (const auto* side : {&out.l, &out.r}) {
            std::complex<double> got = 0.0; // over whole periods of the second half, once settled
            for (size_t i = 48000; i < 96000; ++i)
                got += double{(*side)[i]} * std::polar(2.0 / 48000.0, -omega * static_cast<double>(i));
            EXPECT_NEAR(got.real(), want.real(), 1e-3) << cornerHz << " Hz, feedback " << feedback;
            EXPECT_NEAR(got.imag(), want.imag(), 1e-3) << cornerHz << " Hz, feedback " << feedback;
        }
    }
}

// The chain is held against its transfer function above; here the corner moves. Sample by sample, the
// six sections take the coefficient of the corner the LFO gives, the right side `phase` degrees on and
// one step later, as it reads after the left stepped the LFO.
TEST(Phaser, CornerFollowsTheLfoBetweenTheRangeEnds) {
    constexpr double low = 300.0, high = 3000.0;
    const Stereo in = noise(60000);
    for (const auto& [wave, rateHz, phaseDeg, feedback] :
         {std::tuple{0, 2.0f, 0.0f, 0.0f}, std::tuple{1, 1.5f, 90.0f, -0.5f}, std::tuple{2, 0.9f, 180.0f, 0.7f}}) {
        CPhaser phaser;
        at48k(phaser, static_cast<float>(low), static_cast<float>(high), feedback, wave, rateHz, phaseDeg);
        const Stereo out = run(phaser, in);
        const double inc = rateHz * lfoSize / 48000.0;
        const std::vector<double> phases = lfoPhases(inc, in.size());
        for (const bool right : {false, true}) {
            const std::vector<float>&x = right ? in.r : in.l, &y = right ? out.r : out.l;
            const double lead = right ? inc + phaseDeg * lfoSize / 360.0 : 0.0;
            std::array<double, 6> state{};
            double fed = 0.0;
            for (size_t t = 0; t < in.size(); ++t) {
                const double w = 2.0 * (low + (high - low) * lfoValue(wave, phases[t] + lead)) / 48000.0;
                const double c = (1.0 - w) / (1.0 + w);
                double v = feedback * 0.998 * fed + x[t];
                for (double& s : state) { // (z^-1 - c) / (1 - c z^-1)
                    const double section = s - c * v;
                    s = c * section + v;
                    v = section;
                }
                fed = v;
                ASSERT_NEAR(y[t], 0.5 * v + 0.5 * x[t], 1e-4) << (right ? "right" : "left") << ", frame " << t << ", wave " << wave;
            }
        }
    }
}

uint32_t asWord(float value) { return std::bit_cast<uint32_t>(value); }
uint32_t asWord(int32_t value) { return static_cast<uint32_t>(value); }

template <typename T> const T& as(const CFX& fx) { return static_cast<const T&>(fx); }

// Every kind createFX makes, with a set-up that leaves a long tail, what its state looks like once the
// tail has died, and a stored block's words with the fields they stand for.
struct Kind {
    const char* name;
    int32_t kind;
    float dry, wet;
    std::function<void(CFX&)> setUp;
    std::function<bool(const CFX&)> atRest; // none where nothing can ring on
    std::vector<uint32_t> words;
    std::function<std::vector<uint32_t>(const CFX&)> fields;
};

const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all{
        {"Delay", fxDelay, 1.0f, 0.5f,
         [](CFX& fx) {
             auto& d = static_cast<CDelay&>(fx);
             std::tie(d.sync, d.timeRight, d.cross) = std::tuple(0, 130.0f, 0.3f);
         },
         [](const CFX& fx) {
             return allZero(as<CDelay>(fx).bufL, CDelay::bufferFrames) && allZero(as<CDelay>(fx).bufR, CDelay::bufferFrames);
         },
         {asWord(0.3f), asWord(0), asWord(3), asWord(8), asWord(5), asWord(16), asWord(125.5f), asWord(333.0f), asWord(0.4f)},
         [](const CFX& fx) {
             const auto& d = as<CDelay>(fx);
             return std::vector{asWord(d.feedback), asWord(d.sync), asWord(d.mulLeft), asWord(d.divLeft), asWord(d.mulRight),
                                asWord(d.divRight), asWord(d.timeLeft), asWord(d.timeRight), asWord(d.cross)};
         }},
        {"Reverb", fxReverb, 1.0f, 0.2f, [](CFX& fx) { static_cast<CReverb&>(fx).setSizeMs(1000); },
         [](const CFX& fx) { return reverbStateIsZero(as<CReverb>(fx)); }, {asWord(75), asWord(7000.0f)},
         [](const CFX& fx) { return std::vector{asWord(as<CReverb>(fx).preDelay), asWord(static_cast<float>(as<CReverb>(fx).size))}; }},
        {"Chorus", fxChorus, 0.5f, 0.5f, [](CFX& fx) { static_cast<CChorus&>(fx).feedback = 0.9f; },
         [](const CFX& fx) {
             return allZero(as<CChorus>(fx).bufL.get(), CChorus::bufferFrames) && allZero(as<CChorus>(fx).bufR.get(), CChorus::bufferFrames);
         },
         {asWord(35.0f), asWord(0.6f), asWord(120.0f), asWord(-0.25f), asWord(1.5f)},
         [](const CFX& fx) {
             const auto& c = as<CChorus>(fx);
             return std::vector{asWord(c.delay), asWord(c.depth), asWord(c.phase), asWord(c.feedback), asWord(c.rate)};
         }},
        {"Phaser", fxPhaser, 0.5f, 0.5f, [](CFX& fx) { static_cast<CPhaser&>(fx).feedback = -1.0f; },
         [](const CFX& fx) {
             const auto& p = as<CPhaser>(fx);
             return p.memL == 0.0f && p.memR == 0.0f && allZero(p.stateL.data(), p.stateL.size()) && allZero(p.stateR.data(), p.stateR.size());
         },
         {asWord(0.02f), asWord(-0.4f), asWord(45.0f), asWord(150.0f), asWord(9000.0f)},
         [](const CFX& fx) {
             const auto& p = as<CPhaser>(fx);
             return std::vector{asWord(p.rate), asWord(p.feedback), asWord(p.phase), asWord(p.rangeMin), asWord(p.rangeMax)};
         }},
        // The crusher's holds are copies of the input, with nothing to decay.
        {"Bit Crusher", fxBitcrusher, 1.0f, 1.0f, [](CFX&) {}, nullptr, {asWord(11), asWord(23)},
         [](const CFX& fx) { return std::vector{asWord(as<CBitcrusher>(fx).bits), asWord(as<CBitcrusher>(fx).degrade)}; }},
        {"Filter", fxFilter, 1.0f, 1.0f,
         [](CFX& fx) {
             auto& f = static_cast<CFilterFX&>(fx);
             std::tie(f.type, f.q, f.target, f.lastTarget, f.cutoff) = std::tuple(filterBandPass, 1.0f, 0.6f, 0.6f, 0.6f);
         },
         [](const CFX& fx) {
             const auto& f = as<CFilterFX>(fx);
             return allZero(f.low, 2) && allZero(f.band, 2) && allZero(f.high, 2);
         },
         {asWord(filterHighPass), asWord(0.35f), asWord(0.6f)},
         [](const CFX& fx) {
             const auto& f = as<CFilterFX>(fx);
             return std::vector{asWord(f.type), asWord(f.target), asWord(f.q)};
         }},
        // The compressor's states rest at their floor of 1e-25: never denormal, and the gain back at 1.
        {"Compressor", fxCompressor, 1.0f, 1.0f, [](CFX&) {},
         [](const CFX& fx) {
             const auto& c = as<CCompressor>(fx).rmsComp;
             return std::ranges::all_of(std::array{c.meanSquare, c.env}, [](double s) { return s >= 1e-25 && s < 1.000001e-25; });
         },
         {asWord(-37.0f), asWord(1 / 6.0f), asWord(33.0f), asWord(870.0f), asWord(-4.5f)},
         [](const CFX& fx) {
             const auto& c = as<CCompressor>(fx).rmsComp;
             return std::vector{asWord(static_cast<float>(c.threshold)), asWord(static_cast<float>(c.ratio)),
                                asWord(static_cast<float>(c.getAttack())), asWord(static_cast<float>(c.getRelease())),
                                asWord(static_cast<float>(c.gainDb))};
         }},
    };
    return all;
}

std::unique_ptr<CFX> ringing(const Kind& kind) {
    registerEffects();
    std::unique_ptr<CFX> fx(createFX(kind.kind));
    fx->setSampleRate(48000.0f);
    kind.setUp(*fx);
    fx->setEnabled(true);
    return fx;
}

TEST(EffectKinds, MadeByKindWithNameAndLevelsAndTheirWordsLoadAndSaveInStoredOrder) {
    registerEffects();
    for (const Kind& kind : kinds()) {
        SCOPED_TRACE(kind.name);
        std::unique_ptr<CFX> fx(createFX(kind.kind));
        ASSERT_NE(fx, nullptr);
        EXPECT_EQ(std::tuple(fx->subKind, fx->getName(), fx->dry, fx->wet), std::tuple(kind.kind, kind.name, kind.dry, kind.wet));
        FXWords stored;
        std::copy(kind.words.begin(), kind.words.end(), stored.word);
        fx->loadWords(stored);
        EXPECT_EQ(kind.fields(*fx), kind.words);
        FXWords saved; // words the kind has set to a mark, so that a word it doesn't write shows
        std::fill_n(saved.word, kind.words.size(), 0xDEADBEEFu);
        fx->saveWords(saved);
        EXPECT_EQ(std::vector(saved.word, saved.word + FXWords::count), std::vector(stored.word, stored.word + FXWords::count));
    }
}

TEST(EffectKinds, TenSecondsOfSilenceAfterAnImpulseLeaveEveryStateAtRest) {
    for (const Kind& kind : kinds()) {
        if (!kind.atRest) continue;
        SCOPED_TRACE(kind.name);
        auto fx = ringing(kind);
        run(*fx, impulse(blockFrames, 1.0f, -0.7f));
        ASSERT_FALSE(kind.atRest(*fx)) << "the impulse went in";
        const Stereo out = run(*fx, Stereo(10 * 48000));
        EXPECT_TRUE(kind.atRest(*fx));
        EXPECT_EQ(firstNonZero(out.l, out.size() - blockFrames), out.size());
        EXPECT_EQ(firstNonZero(out.r, out.size() - blockFrames), out.size());
    }
}

TEST(EffectKinds, ProcessAllocatesNothingAndTakesNoLock) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    for (const Kind& kind : kinds()) {
        auto fx = ringing(kind);
        auto* filter = dynamic_cast<CFilterFX*>(fx.get());
        Stereo loud = noise(blockFrames), quiet(blockFrames), out(blockFrames);
        int64_t allocations = 0, locks = 0;
        {
            rtprobe::Scope probe;
            // Loud, then silent long enough for the reverb to go idle and clear, then loud to wake it; the
            // filter glides to a new cutoff now and then.
            for (int32_t block = 0; block < 300; ++block) {
                if (filter && block % 50 == 0) filter->setCutoff(0.2f + 0.003f * static_cast<float>(block));
                const Stereo& in = block < 20 || block > 280 ? loud : quiet;
                fx->process(in.l.data(), in.r.data(), out.l.data(), out.r.data(), blockFrames);
            }
            allocations = probe.allocations();
            locks = probe.locks();
        }
        EXPECT_EQ(allocations, 0) << kind.name;
        EXPECT_EQ(locks, 0) << kind.name;
    }
}

} // namespace
