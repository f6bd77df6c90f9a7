#include "seq/timeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "seq/part.h"
#include "seq/song.h"

namespace {

struct TempoAt {
    int32_t tick;
    float bpm;
};
struct SigAt {
    int32_t tick, num, den;
};

// An arrangement with its tempo and signature points, appended in the order given (rising start).
struct Song {
    CSeqProg prog{nullptr};
    explicit Song(const std::vector<TempoAt>& tempos = {}, const std::vector<SigAt>& signatures = {}) {
        for (const auto& [tick, bpm] : tempos) {
            auto* point = new CTempoPart();
            point->start = tick, point->tempo = bpm;
            prog.tempos.add(point);
        }
        for (const auto& [tick, num, den] : signatures) {
            auto* point = new CTimesigPart();
            point->start = tick, point->numerator = num, point->denominator = den;
            prog.signatures.add(point);
        }
    }
};

// Ten minutes at 120 BPM before the first point, then 100 points at random moments with random tempos.
std::vector<TempoAt> randomTempoMap(uint32_t seed, double& songTicks) {
    std::mt19937 random(seed);
    std::vector<double> seconds(100);
    for (double& s : seconds) s = std::uniform_real_distribution<double>(1.0, 599.0)(random);
    std::sort(seconds.begin(), seconds.end());
    std::vector<TempoAt> map;
    double tick = 0.0, at = 0.0, bpm = 120.0;
    for (double s : seconds) {
        tick += (s - at) * bpm * 16.0;
        at = s;
        bpm = std::uniform_int_distribution<int>(4000, 24000)(random) / 100.0;
        if (map.empty() || std::lround(tick) > map.back().tick) map.push_back({int32_t(std::lround(tick)), float(bpm)});
    }
    songTicks = tick + (600.0 - at) * bpm * 16.0;
    return map;
}

} // namespace

TEST(TimelineConvert, TicksToSamplesAndBackWalkTheTempoMap) {
    struct Row {
        std::vector<TempoAt> points;
        int32_t start, count;
        double expected;
    };
    const Row rows[] = {
        {{}, 0, 960, 22050.0},
        {{{0, 60.0f}}, 0, 960, 44100.0},                           // the span before the point is empty
        {{{960, 60.0f}}, 0, 1920, 22050.0 + 44100.0},              // engine tempo up to the point
        {{{0, 60.0f}}, 960, 960, 44100.0},                         // a point before the start sets the tempo
        {{{0, 60.0f}, {480, 240.0f}}, 0, 1920, 22050.0 + 16537.5}, // the last point holds
        {{{960, 60.0f}}, 0, 960, 22050.0},                         // ends on the point
        {{{0, 0.0f}}, 0, 960, 264600.0},                           // a zero tempo from a file reads as 10
        {{{0, 60.0f}}, 0, 0, 0.0},
    };
    for (const Row& row : rows) {
        Song song(row.points);
        EXPECT_DOUBLE_EQ(ticksToSamples(&song.prog, 120.0f, row.start, row.count, 44100), row.expected)
            << row.start << " + " << row.count;
    }
    EXPECT_DOUBLE_EQ(ticksToSamples(nullptr, 120.0f, 0, 960, 44100), 22050.0);

    // The inverse truncates each span to whole ticks.
    struct Back {
        std::vector<TempoAt> points;
        double start, samples, expected;
    };
    const Back backs[] = {
        {{}, 0, 22050, 960},
        {{{960, 60.0f}}, 0, 22050 + 44100, 1920},
        {{{0, 60.0f}}, 960, 44100, 960},    // a point behind the start only sets the tempo
        {{{3840, 60.0f}}, 0, 100, 4},       // stops inside the first span
        {{{1000, 120.0f}}, 0, 45938, 1999}, // same tempo, but the span at the point is cut to whole samples
        {{}, 0, 0.5, 0},                    // less than one sample
    };
    for (const Back& row : backs) {
        Song song(row.points);
        EXPECT_EQ(samplesToTicks(&song.prog, 120.0f, row.start, row.samples, 44100), row.expected) << row.samples;
    }
    EXPECT_DOUBLE_EQ(samplesToTicks(nullptr, 120.0f, 0, 22050, 44100), 960.0);
}

// Ten minutes, 100 tempo changes: the exact pair inverts itself within a frame and agrees with the tick
// walk, and the whole-number inverse stays within what its truncations allow.
TEST(TimelineConvert, RoundTripsStayWithinOneFrameAcrossTempoChanges) {
    for (int32_t rate : {44100, 96000}) {
        double songTicks = 0.0;
        const std::vector<TempoAt> map = randomTempoMap(uint32_t(rate), songTicks);
        ASSERT_GT(map.size(), 90u);
        Song song(map);
        const CSeqProg* prog = &song.prog;
        const double songFrames = 600.0 * rate;
        ASSERT_NEAR(ticksToSamples(prog, 120.0f, 0, int32_t(songTicks), rate), songFrames, rate * 0.01);

        std::mt19937 random(7);
        std::vector<double> probes;
        for (int i = 0; i < 3000; ++i) probes.push_back(std::uniform_real_distribution<double>(0.0, songFrames)(random));
        for (const TempoAt& point : map)
            for (double d : {-1.0, 0.0, 1.0}) probes.push_back(tickToFrame(prog, 120.0f, point.tick, rate) + d);
        for (double frame : probes) {
            const double tick = frameToTick(prog, 120.0f, frame, rate);
            EXPECT_NEAR(tickToFrame(prog, 120.0f, tick, rate), frame, 1.0) << rate << " frame " << frame;
            EXPECT_NEAR(tickToFrame(prog, 120.0f, std::floor(tick), rate),
                        ticksToSamples(prog, 120.0f, 0, int32_t(tick), rate), 1e-3) << rate << " frame " << frame;
            // The whole-number inverse runs behind by at most one tick per span it cut, and ahead only
            // by the sub-sample remainders it carried to a later tempo.
            const double crossed =
                double(std::count_if(map.begin(), map.end(), [&](const TempoAt& p) { return p.tick <= tick; }));
            const double whole = samplesToTicks(prog, 120.0f, 0.0, frame, rate);
            const double carried = crossed * 240.0 * 16.0 / rate;
            EXPECT_EQ(whole, std::trunc(whole));
            EXPECT_LE(whole, tick + carried) << rate << " frame " << frame;
            EXPECT_GE(whole, tick - crossed - 1.0 - carried) << rate << " frame " << frame;
        }
    }
}

TEST(TimelineBars, BeatTicksAndSnapToBeat) {
    for (auto [den, ticks] : {std::pair{4, 960}, {8, 480}, {7, 548}, {1, 3840}, {960, 4}, {0, 960}, {-8, 960}, {961, 960}})
        EXPECT_EQ(beatTicks(den), ticks) << den;

    struct Row {
        std::vector<SigAt> signatures;
        int32_t tick, expected;
    };
    const Row rows[] = {
        {{}, 700, 960}, {{}, 479, 0}, {{}, 480, 960}, {{}, -700, -960},
        {{{100, 4, 4}}, 700, 1060},             // beats counted from the point
        {{{0, 6, 8}}, 700, 480},
        {{{3840, 6, 8}}, 700, 960},             // a later point is not in force
        {{{0, 3, 8}, {960, 4, 0}}, 1500, 1920}, // denominator 0 reads as 4
        {{{700, 6, 8}}, 700, 700},              // a point on the tick is in force
    };
    for (const Row& row : rows) {
        Song song({}, row.signatures);
        EXPECT_EQ(snapToBeat(&song.prog, row.tick, 4, 4), row.expected) << row.tick;
    }
}

// Reference numbering: step through the song one tick at a time, rolling beats and bars over and
// starting a fresh bar wherever a signature point begins.
TEST(TimelineBars, BarAtAgreesWithATickByTickCountOverRandomSignatureMaps) {
    std::mt19937 random(11);
    const int32_t dens[] = {1, 2, 4, 8, 16, 32, 3, 7};
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    for (int map = 0; map < 60; ++map) {
        std::vector<SigAt> signatures;
        int32_t at = pick(0, 1) ? 0 : pick(1, 6000);
        for (int n = pick(0, 10); n > 0; --n, at += pick(0, 3) ? pick(1, 9000) : 0)
            signatures.push_back({at, pick(1, 13), dens[pick(0, 7)]});
        const int32_t defNum = pick(1, 7), defDen = dens[pick(0, 7)];
        Song song({}, signatures);

        int32_t bar = 1, beat = 1, inBeat = 0, num = defNum, beatLength = (960 / defDen) * 4;
        size_t next = 0;
        for (int32_t tick = 0; tick < 60000; ++tick) {
            if (tick > 0 && ++inBeat == beatLength) {
                inBeat = 0;
                if (++beat > num) beat = 1, ++bar;
            }
            bool changed = false;
            for (; next < signatures.size() && signatures[next].tick == tick; ++next, changed = true)
                num = signatures[next].num, beatLength = (960 / signatures[next].den) * 4;
            if (changed && (beat != 1 || inBeat != 0)) bar += 1, beat = 1, inBeat = 0;

            const BarPosition got = barAt(&song.prog, tick, defNum, defDen);
            ASSERT_TRUE(got.bar == bar && got.beat == beat && got.tick == inBeat)
                << "map " << map << " tick " << tick << ": " << got.bar << "." << got.beat << "." << got.tick
                << " expected " << bar << "." << beat << "." << inBeat;
        }
    }
    const BarPosition display = barAt(nullptr, 4800, 6, 8);
    EXPECT_EQ(std::tuple(display.bar, display.beat, display.tick), std::tuple(2, 5, 0));
    const BarPosition before = barAt(nullptr, -1, 4, 4); // counts back from bar 1
    EXPECT_EQ(std::tuple(before.bar, before.beat, before.tick), std::tuple(0, 4, 959));
}

TEST(TimelineText, PositionDisplays) {
    struct Bars {
        double position;
        int32_t num, den;
        const char* text;
    };
    const Bars bars[] = {
        {0, 4, 4, "001.01.000"},    {3839.5, 4, 4, "002.01.000"}, {4000, 6, 8, "002.03.160"},
        {4000000, 4, 4, "1042.03.640"},
        {4000, 4, 0, "002.01.160"}, {4000, 0, 4, "002.01.160"}, // unusable signatures read as 4/4
    };
    for (const Bars& row : bars) EXPECT_STREQ(formatBars(row.position, row.num, row.den).c_str(), row.text) << row.position;

    for (auto [samples, text] : {std::pair{0, "000:00:000"}, {44099, "000:00:999"}, {44100 * 61 + 22050, "001:01:500"},
                                 {2147483647, "811:35:774"}})
        EXPECT_STREQ(formatTime(samples, 44100).c_str(), text) << samples;
    EXPECT_STREQ(formatTime(44100, 0).c_str(), "000:00:000");
}

TEST(TimelineInsert, IndexGoesBeforeTheFirstPointAtOrBehindTheTick) {
    Song song({{0, 120.0f}, {960, 90.0f}, {960, 100.0f}, {3840, 80.0f}});
    for (auto [tick, index] : {std::pair{-5, 0}, {0, 0}, {1, 1}, {960, 1}, {961, 3}, {5000, 4}})
        EXPECT_EQ(insertIndexFor(song.prog.tempos, tick), index) << tick;
    EXPECT_EQ(insertIndexFor(Song().prog.tempos, 100), 0);
}

TEST(Snap, GridTicksAndSnapDown) {
    struct Row {
        int32_t type, num, den;
        uint8_t triplet, dotted;
        int32_t expected;
    };
    const Row rows[] = {
        {3, 4, 4, 0, 0, 240},  {3, 4, 4, 1, 0, 160},  {3, 4, 4, 0, 1, 360},  {3, 4, 4, 1, 1, 360},
        {0, 4, 4, 1, 0, 20},   {5, 4, 4, 0, 1, 1440}, {6, 3, 4, 0, 0, 2880}, {6, 5, 7, 0, 0, 2740},
        {6, 4, 0, 0, 0, 3840}, {6, 0, 4, 0, 0, 3840}, {9, 4, 4, 0, 0, 240},  {6, 1, 960, 1, 0, 2},
    };
    for (const Row& row : rows) {
        CSnap snap;
        snap.gridType = row.type, snap.barNumerator = row.num, snap.barDenominator = row.den;
        snap.triplet = row.triplet, snap.dotted = row.dotted;
        EXPECT_EQ(snap.gridTicks(), row.expected) << row.type << " " << row.num << "/" << row.den;
    }

    struct ThreeFour : CBarSource {
        int calls = 0;
        void refreshBar(int32_t& num, int32_t& den) override { num = 3, den = 4, ++calls; }
    } source;
    CSnap bars;
    bars.gridType = 6;
    bars.barSource = &source;
    EXPECT_EQ(bars.gridTicks(), 2880);
    EXPECT_EQ(source.calls, 1);

    // Snapping down floors, also below zero.
    constexpr int32_t lowest = std::numeric_limits<int32_t>::min();
    CSnap snap;
    for (auto [tick, expected] : {std::pair{239, 0}, {0, 0}, {-1, -240}, {-240, -240}, {lowest + 5, lowest}})
        EXPECT_EQ(snap.snapDown(tick), expected) << tick;
    snap.enabled = 0;
    EXPECT_EQ(snap.snapDown(-7), -7);
}

TEST(TempoFollow, APointWithinTheNextBlockChangesTheNextTempo) {
    // 48000 Hz at 120 BPM: 25 frames a tick; blocks of 1000 frames are 40 ticks.
    struct Row {
        std::vector<TempoAt> points;
        double position;
        int32_t block;
        float expected;
    };
    const Row rows[] = {
        {{{1039, 90.0f}}, 1000, 1000, 90.0f},
        {{{1040, 90.0f}}, 1000, 1000, 120.0f},   // 975 frames away, and 1000
        {{{1040, 90.0f}}, 1000.9, 1000, 120.0f}, // the position counts truncated
        {{{1002, 90.0f}}, 1000, 64, 90.0f},      // 50 frames, and 75, ahead of a small block
        {{{1003, 90.0f}}, 1000, 64, 120.0f},
        {{{1163, 90.0f}}, 1000, 4096, 90.0f},    // 4075 frames, and 4100, ahead of a large one
        {{{1164, 90.0f}}, 1000, 4096, 120.0f},
        {{{10, 90.0f}}, 1000, 1000, 90.0f},      // reached, and long passed
        {{{10, 90.0f}, {1020, 80.0f}, {1030, 70.0f}, {5000, 60.0f}}, 1000, 1000, 70.0f},
        {{{0, 300.0f}}, 1000, 1000, 250.0f},
        {{{0, 5.0f}}, 1000, 1000, 10.0f},
        {{{0, std::nanf("")}}, 1000, 1000, 10.0f},
    };
    for (const Row& row : rows) {
        Song song(row.points);
        EXPECT_EQ(followTempo(song.prog, row.position, 120.0f, 120.0f, 48000.0, row.block), row.expected)
            << row.position << ", block " << row.block;
    }
    // Only a new value is limited; the engine's own is left as it is.
    EXPECT_EQ(followTempo(Song({{0, 300.0f}}).prog, 1000, 120.0f, 300.0f, 48000.0, 1000), 300.0f);
}
