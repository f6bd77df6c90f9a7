#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <tuple>

#include "sound_rig.h"

using namespace soundtest;

namespace {

constexpr double rate = 48000.0;
constexpr int32_t chunk = 48;  // one control chunk at 48 kHz
constexpr double centreGain = 0.36;  // (0.6 * volume)^2 at the centre, envelope at 1

// A sound whose right channel is minus its gain: the second oscillator starts a quarter cycle in and
// stands almost still (key 0, four octaves down, the wheel at -120 semitones), the low-pass passes that
// DC unchanged, and width 1 gives the right side that oscillator alone. So m = sqrt(-right / 0.36) is the
// product of everything routed to Volume.
COSCSound& dcSound(Rig& rig) {
    COSCSound& sound = rig.plainSound();
    sound.width = 1.0f;
    sound.phase = 0.5f;
    sound.coarse = -48.0f;
    sound.bendRange = 120;
    return sound;
}

std::vector<std::pair<int64_t, uint32_t>> dcNote(int64_t offAt = -1, int32_t velocity = 100) {
    std::vector<std::pair<int64_t, uint32_t>> events = {{0, pitchWheel(0)}, {0, noteOn(0, velocity)}};
    if (offAt >= 0) events.emplace_back(offAt, noteOff(0));
    return events;
}

double level(const Rig& rig, size_t n) { return std::sqrt(std::max(-rig.right[n], 0.0f) / centreGain); }
double gain(const Rig& rig, size_t n) { return -rig.right[n]; }

// The rig's sound with its first LFO a pulse on the volume.
CLFO& pulseOnVolume(Rig& rig) {
    CLFO& lfo = dcSound(rig).lfo[0];
    lfo.wave = wavePulse;
    lfo.params[0] = {1, targetVolume, 1.0f};
    return lfo;
}

// The frames from `from` on where the gain climbs through half the centre gain: an LFO pulse's rises.
std::vector<size_t> halfRises(const Rig& rig, size_t from) {
    std::vector<size_t> rises;
    for (size_t n = std::max<size_t>(from, 1); n < rig.right.size(); ++n)
        if (gain(rig, n - 1) < centreGain / 2 && gain(rig, n) >= centreGain / 2) rises.push_back(n);
    return rises;
}

int32_t samples(float x, int32_t timeScale) {
    return static_cast<int32_t>(std::floor(double{x} * x * timeScale * rate * 0.001 + 0.5));
}

// The curve of a segment at t in 0..1.
double shape(double t, double curve) {
    const double k = curve * curve * 63.0 + 1.0;
    const double c = curve < 0.0 ? k : 1.0 / k;
    return k == 1.0 ? t : 1.0 - (c / (t * (1.0 - c) + c) - c) / (1.0 - c);
}

// The envelope value at a sample for a note held from 0 until offAt.
double envelopeAt(const CEnv& env, double n, double offAt) {
    const double a = samples(env.attack, env.timeScale), d = samples(env.decay, env.timeScale);
    // The level while held, and the curve of the segment it is in, which a release takes over.
    auto held = [&](double at) -> std::pair<double, double> {
        if (at < a) return {shape(at / a, env.ac), env.ac};
        if (at < a + d) return {1.0 + (env.sustain - 1.0) * shape((at - a) / d, env.dc), env.dc};
        return {env.sustain, 0.0};
    };
    if (n < offAt) return held(n).first;
    const auto [from, curve] = held(offAt);
    if (env.releaseTime == 1.0f && env.id != 0) return from;
    const double r = samples(env.releaseTime, env.timeScale);
    return n >= offAt + r ? 0.0 : from - from * shape((n - offAt) / r, curve);
}

// Every rendered sample must lie within what the expected curve takes one chunk before and after it.
void expectWithinOneChunk(const Rig& rig, const std::function<double(double)>& expected, size_t from, size_t to,
                          const char* what) {
    for (size_t n = from; n < to; ++n) {
        double low = 1e9, high = -1e9;
        for (int32_t k = -chunk; k <= chunk; k += 4) {
            const double e = expected(static_cast<double>(n) + k);
            low = std::min(low, e);
            high = std::max(high, e);
        }
        const double m = level(rig, n);
        ASSERT_GE(m, low - 2e-3) << what << " at sample " << n;
        ASSERT_LE(m, high + 2e-3) << what << " at sample " << n;
    }
}

}  // namespace

TEST(Envelopes, SegmentTimesAndCurvesMatchTheFormulas) {
    struct Row {
        const char* what;
        float attack, decay, sustain, release, ac, dc;
        int32_t timeScale;
        int64_t offAt;  // -1: after the decay and 0.1 s of sustain
    } rows[] = {
        {"linear", 0.2f, 0.3f, 0.5f, 0.25f, 0.0f, 0.0f, 5000, -1},
        {"curved, short time scale", 0.4f, 0.5f, 0.3f, 0.5f, 0.5f, -0.5f, 2000, -1},
        {"released during a curved attack", 0.5f, 0.1f, 0.6f, 0.2f, -0.7f, 0.0f, 5000, 20000},
        {"fast", 0.3f, 0.1f, 0.8f, 0.1f, 0.3f, 0.3f, 1000, -1},
    };
    for (const Row& row : rows) {
        Rig rig;
        CEnv& env = dcSound(rig).envelope[0];
        std::tie(env.attack, env.decay, env.sustain, env.releaseTime, env.ac, env.dc, env.timeScale) =
            std::tie(row.attack, row.decay, row.sustain, row.release, row.ac, row.dc, row.timeScale);
        const int64_t offAt = row.offAt >= 0 ? row.offAt
                                             : samples(row.attack, row.timeScale) + samples(row.decay, row.timeScale) + 4800;
        const int64_t releaseEnd = offAt + samples(row.release, row.timeScale);
        rig.render(releaseEnd - 1, dcNote(offAt));
        EXPECT_EQ(rig.sampler->soundingVoices(), 1) << row.what << ": the voice outlives its release";
        rig.render(480 + 2 * rig.block);
        EXPECT_EQ(rig.sampler->soundingVoices(), 0) << row.what << ": closed 10 ms after the release";

        auto expected = [&](double n) { return envelopeAt(env, std::max(n, 0.0), static_cast<double>(offAt)); };
        expectWithinOneChunk(rig, expected, 4, static_cast<size_t>(releaseEnd + 480), row.what);
        for (size_t n = static_cast<size_t>(releaseEnd + 480); n < rig.right.size(); ++n)
            ASSERT_EQ(rig.right[n], 0.0f) << row.what << ": closing makes no sound, at " << n;
    }
}

TEST(Envelopes, ZeroTimesJumpAtOnce) {
    Rig rig;
    dcSound(rig);
    rig.render(2048, dcNote());
    for (size_t n = 2; n < 2048; ++n) ASSERT_NEAR(level(rig, n), 1.0, 1e-3) << "attack 0 starts at the top, at " << n;

    Rig silent;
    CEnv& zero = dcSound(silent).envelope[0];
    zero.sustain = 0.0f;
    silent.render(48000, dcNote());
    for (size_t n = 0; n < 48000; ++n) ASSERT_EQ(silent.right[n], 0.0f) << "sustain 0 after decay 0, at " << n;
    EXPECT_EQ(silent.sampler->soundingVoices(), 1) << "the voice waits in its sustain";
    EXPECT_EQ(silent.sampler->voices[CSampler::voiceCount - 1].modState[0].stage, stageSustain);
}

TEST(Envelopes, OnlyTheFirstEnvelopeEndsAVoiceAndAReleaseOf1HoldsTheOthers) {
    struct Row {
        const char* what;
        float filterRelease;  // envelope[1], routed to Volume here
        float filterDecay;
        bool routedAfterNoteOff;  // reaches no target until the note is off: its release starts from where it stood
    } rows[] = {{"release 1.0 holds", 1.0f, 0.1f, false},
                {"release 0.5 falls over 1.25 s", 0.5f, 0.1f, false},
                {"released mid-decay while reaching no target", 0.5f, 0.3f, true}};
    constexpr int64_t offAt = 9600;
    for (const Row& row : rows) {
        Rig rig;
        COSCSound& sound = dcSound(rig);
        CEnv& amp = sound.envelope[0];
        amp.releaseTime = 1.0f;  // on the first envelope, 1.0 is a 5 s release
        CEnv& second = sound.envelope[1];
        second.params[0].index = targetVolume;
        second.decay = row.filterDecay;
        second.sustain = 0.5f;
        second.releaseTime = row.filterRelease;
        size_t from = 4;
        if (row.routedAfterNoteOff) {
            second.params[0].amount = 0.0f;
            rig.render(offAt + rig.block, dcNote(offAt));
            second.params[0].amount = 1.0f;
            from = rig.right.size() + 2 * chunk;  // the gain's slew limit takes the step the routing makes
            rig.render(2 * 48000);
        } else {
            rig.render(offAt + 2 * 48000, dcNote(offAt));
        }
        auto expected = [&](double n) {
            n = std::max(n, 0.0);
            return envelopeAt(amp, n, offAt) * envelopeAt(second, n, offAt);
        };
        expectWithinOneChunk(rig, expected, from, rig.right.size(), row.what);
        EXPECT_EQ(rig.sampler->soundingVoices(), 1) << row.what;
    }
}

TEST(LFOs, RatesMeasuredFromTheOutputMatchTheFormula) {
    struct Row {
        const char* what;
        float rateHz;
        int32_t sync, mul, div;
        float bpm;
        double hz;
    } rows[] = {
        {"free 6 Hz", 6.0f, 0, 1, 1, 120.0f, 6.0},
        {"free 13.3 Hz", 13.3f, 0, 1, 1, 120.0f, 13.3},
        {"beat, 1/1 at 120", 6.0f, 1, 1, 1, 120.0f, 2.0},
        {"beat, 4/1 at 120", 6.0f, 1, 4, 1, 120.0f, 0.5},
        {"beat, 2/3 at 90", 6.0f, 1, 2, 3, 90.0f, 2.25},
    };
    for (const Row& row : rows) {
        Rig rig;
        rig.engine.bpmTarget.store(row.bpm);
        CLFO& lfo = pulseOnVolume(rig);
        std::tie(lfo.rate, lfo.sync, lfo.mul, lfo.div) = std::tie(row.rateHz, row.sync, row.mul, row.div);
        const double period = rate / row.hz;
        rig.render(static_cast<int64_t>(period * 4.5), dcNote());

        // The pulse turns high at each wrap, k periods after the note-on; the gain then climbs at the slew
        // limit, reaching half its height 55 samples later. A wrap leaves the phase within half a step of 0,
        // and a phase just below 0 reads the pulse's low end, so a rise may come one chunk late, never more.
        const double slew = 1.0 / (rate * 6.2831855 * 0.001);
        const double climb = std::ceil(centreGain / 2 / slew);
        const std::vector<size_t> rises = halfRises(rig, static_cast<size_t>(period * 0.75));
        for (size_t k = 0; k < rises.size(); ++k) {
            const double late = static_cast<double>(rises[k]) - static_cast<double>(k + 1) * period - climb;
            EXPECT_GE(late, -1.0) << row.what << ", cycle " << k + 1;
            EXPECT_LE(late, chunk + 1.0) << row.what << ", cycle " << k + 1;
        }
        EXPECT_EQ(rises.size(), 4u) << row.what;
    }
}

TEST(LFOs, ARateChangedWhileANoteSoundsTakesEffect) {
    Rig rig;
    CLFO& lfo = pulseOnVolume(rig);
    lfo.rate = 6.0f;
    rig.render(rate, dcNote());
    lfo.rate = 13.3f;
    const size_t changedAt = rig.right.size();
    rig.render(rate);
    const std::vector<size_t> rises = halfRises(rig, changedAt + 1);
    ASSERT_GE(rises.size(), 10u);
    const double period = rate / 13.3;
    for (size_t k = 1; k < rises.size(); ++k)
        EXPECT_NEAR(static_cast<double>(rises[k] - rises[k - 1]), period, chunk + 1.0) << "rise " << k;
}

TEST(LFOs, ADelayHoldsTheCentreThenStartsFromThePhaseAtNoteOn) {
    Rig rig;
    pulseOnVolume(rig).delay = 500;
    rig.render(36000, dcNote());
    const int64_t delay = 24000;
    for (int64_t n = 4; n < delay; ++n) ASSERT_NEAR(level(rig, n), 0.5, 1e-3) << n;
    int64_t rise = 0;
    while (rise < 36000 && gain(rig, rise) < 0.2) ++rise;
    // Phase 0 of a pulse is its high half: the gain leaves 0.09 for 0.36 at the slew limit.
    EXPECT_GE(rise, delay);
    EXPECT_LE(rise, delay + chunk + 48);
}

TEST(LFOs, RandomWaveStepsOncePerCycleWithTheSeededSequence) {
    Rig rig;
    rig.sampler->random.seed(1234);
    CLFO& lfo = pulseOnVolume(rig);
    lfo.wave = waveRandom;
    lfo.rate = 10.0f;
    const int32_t period = 4800;
    rig.render(period * 6, dcNote());
    CSoundRandom expected(1234);
    double value = 0.5;  // until the first wrap
    for (int32_t cycle = 0; cycle < 6; ++cycle) {
        for (int32_t n = cycle * period + 400; n < (cycle + 1) * period - chunk; n += 50)
            ASSERT_NEAR(level(rig, n), value, 1e-3) << "cycle " << cycle << ", sample " << n;
        value = expected.next() / 32767.0;
    }
}

TEST(LFOs, RestartModesSetThePhaseAtNoteOn) {
    struct Row {
        const char* what;
        int32_t restart;
        bool samePhase;
    } rows[] = {{"free run", restartFree, true}, {"mono", restartMono, true}, {"poly", restartPoly, false}};
    for (const Row& row : rows) {
        Rig rig;
        CLFO& lfo = rig.plainSound().lfo[0];
        lfo.rate = 3.7f;
        lfo.restart = row.restart;
        rig.engine.start();
        rig.render(rig.block * 3, {{0, noteOn(60)}});
        rig.render(rig.block * 3, {{0, noteOn(64)}});
        const LFOState& first = rig.sampler->voices[CSampler::voiceCount - 1].lfo[0];
        const LFOState& second = rig.sampler->voices[CSampler::voiceCount - 2].lfo[0];
        const double apart = std::remainder(first.phase - second.phase, 1.0);
        if (row.samePhase) EXPECT_NEAR(apart, 0.0, 1e-9) << row.what;
        else EXPECT_GT(std::fabs(apart), 0.01) << row.what;
    }
}

TEST(Routing, PanAddsVolumeAndCutoffScale) {
    // A 1 Hz pulse LFO: high (m = 1) for the first half second, low (m = 0) for the second.
    struct Row {
        const char* what;
        int32_t target;
        float amount;
        double highGain, lowGain;  // of the right side
    } rows[] = {
        {"pan, additive", targetPan, 0.5f, (0.5 * 0.5 + 1) * centreGain, (-0.5 + 1) * centreGain},
        {"volume, scaled", targetVolume, 0.5f, centreGain, 0.5 * 0.5 * centreGain},
        {"cutoff of a DC, no change", targetCutoff, 0.5f, centreGain, centreGain},
    };
    for (const Row& row : rows) {
        Rig rig;
        CLFO& lfo = pulseOnVolume(rig);
        lfo.rate = 1.0f;
        lfo.params[0] = {1, row.target, row.amount};
        rig.render(48000, dcNote());
        EXPECT_NEAR(gain(rig, 12000), row.highGain, 1e-3) << row.what;
        EXPECT_NEAR(gain(rig, 36000), row.lowGain, 2e-3) << row.what;
    }
}

TEST(Velocity, RoutesTheNoteOnVelocityWhileChannelPressureChangesNothing) {
    for (int32_t velocity : {127, 64, 10}) {
        Rig rig;
        dcSound(rig).vel.params[0] = {1, targetVolume, 1.0f};
        rig.render(2048, dcNote(-1, velocity));
        EXPECT_NEAR(level(rig, 1000), velocity / 127.0, 1e-3) << velocity;
    }
    auto render = [](bool pressure) {
        Rig rig;
        rig.plainSound().cp.params[0] = {1, targetVolume, 1.0f};
        std::vector<std::pair<int64_t, uint32_t>> events = {{0, noteOn(60)}};
        if (pressure) events.emplace_back(500, packMIDI(0xD0, 20, 0));
        rig.render(2048, events);
        return rig.left;
    };
    EXPECT_EQ(render(false), render(true));
}
