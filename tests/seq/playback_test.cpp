#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "support/song.h"
#include "support/rt_probe.h"

namespace {

using songtest::Recorder;
using songtest::Song;

// Notes that are still sounding: every note-on must meet its note-off.
std::map<uint32_t, int> soundingNotes(const std::vector<Recorder::Item>& items) {
    std::map<uint32_t, int> sounding;
    for (const auto& item : items) {
        const uint32_t status = item.midi & 0xF0, key = item.midi & 0xFF0F;
        const bool on = status == 0x90 && ((item.midi >> 16) & 0xFF) != 0;
        if (on) ++sounding[key];
        else if ((status == 0x80 || status == 0x90) && sounding[key] > 0) --sounding[key];
    }
    std::erase_if(sounding, [](const auto& entry) { return entry.second == 0; });
    return sounding;
}

}  // namespace

TEST(Playback, EventFramesMatchTheTempoMapAtEveryBlockSizeAndRate) {
    // Rates and tempos with a whole number of frames per tick, so rounding ties cannot hide differences.
    for (auto [rate, bpm] : {std::pair{44100.0f, 91.875f}, {48000.0f, 120.0f}, {96000.0f, 150.0f}}) {
        const double framesPerTick = rate / (bpm * 16.0);
        std::vector<std::vector<Recorder::Item>> streams;
        for (int32_t block : {64, 100, 1024, 4096}) {
            Song song(rate, bpm);
            song.engine.setBlockSize(block);
            song.engine.setLoop(false);
            CMIDIPart* part = song.addPart(0, 960, 3840 * 8);
            std::mt19937 random(5);
            for (int i = 0; i < 300; ++i)
                Song::addNote(*part, static_cast<int32_t>(random() % (3840 * 8 - 200)), static_cast<uint8_t>(36 + random() % 48),
                              10 + static_cast<int32_t>(random() % 400));
            song.engine.start();
            song.runFor(static_cast<int64_t>((960 + 3840 * 8 + 960) * framesPerTick), block);

            // Every note-on lands where the tempo map puts it: part start plus its tick.
            std::vector<double> expectedOn, actualOn;
            int64_t tick = 960;
            for (const CEventRec* e = part->getEvents(); e; e = e->next) expectedOn.push_back(double(tick += e->delta) * framesPerTick);
            for (const auto& item : song.recorder->received)
                if ((item.midi & 0xF0) == 0x90) actualOn.push_back(item.frame);
            ASSERT_EQ(actualOn.size(), expectedOn.size()) << "block " << block;
            for (size_t i = 0; i < expectedOn.size(); ++i)
                ASSERT_NEAR(actualOn[i], expectedOn[i], 1e-6) << "rate " << rate << " block " << block << " event " << i;
            EXPECT_TRUE(soundingNotes(song.recorder->received).empty());
            streams.push_back(song.recorder->received);
        }
        // Events on one frame may come in either order; the (frame, message) pairs must be the same.
        std::vector<std::vector<std::pair<double, uint32_t>>> sorted;
        for (const auto& stream : streams) {
            sorted.emplace_back();
            for (const auto& item : stream) sorted.back().emplace_back(std::floor(item.frame + 0.5), item.midi);
            std::sort(sorted.back().begin(), sorted.back().end());
        }
        for (size_t s = 1; s < sorted.size(); ++s) EXPECT_EQ(sorted[s], sorted[0]) << "block size " << s << " of " << rate;
    }
}

TEST(Playback, NoteEndsAtThePartEndMinusOneTick) {
    Song song(48000.0f, 120.0f);  // 25 frames a tick
    song.engine.setLoop(false);
    Song::addNote(*song.addPart(0, 0, 960), 480, 60, 2000);
    song.engine.start();
    song.runFor(25 * 2000, 256);
    ASSERT_EQ(song.recorder->received.size(), 2u);
    EXPECT_DOUBLE_EQ(song.recorder->received[0].frame, 480 * 25.0);
    EXPECT_EQ(std::floor(song.recorder->received[1].frame + 0.5), (960 - 1) * 25.0);
    EXPECT_EQ(song.recorder->received[1].midi & 0xF0, 0x80u);
}

TEST(Playback, NoHangingNotesAcrossWrapsStopsJumpsAndRemovedParts) {
    Song song(48000.0f, 120.0f, 2);
    CMIDIPart* a = song.addPart(0, 0, 3840 * 4);
    CMIDIPart* b = song.addPart(1, 1920, 3840 * 2);
    for (int32_t t = 0; t < 3840 * 4; t += 240) Song::addNote(*a, t, static_cast<uint8_t>(40 + t / 240 % 30), 700);
    for (int32_t t = 0; t < 3840 * 2; t += 320) Song::addNote(*b, t, static_cast<uint8_t>(50 + t / 320 % 20), 900, 3);
    song.seq->setLoopRange(1000, 5000);  // the loop end falls inside held notes
    song.engine.setLoop(true);
    song.engine.start();
    song.runFor(48000 * 3, 333);  // several wraps
    EXPECT_GT(song.recorder->received.size(), 50u);

    song.engine.setPosition(9000.0);  // jumps while playing
    song.runFor(48000, 128);
    song.engine.setPosition(2000.0);
    song.runFor(20000, 512);

    // A part removed while its notes sound: the queued note-offs still go out.
    song.songTrack(1).parts.remove(b);
    song.runFor(48000, 1000);
    delete b;

    song.engine.stop();
    song.runFor(4096, 512);
    EXPECT_FALSE(song.seq->currentProg()->playing.load());
    EXPECT_TRUE(soundingNotes(song.recorder->received).empty());
}

TEST(Playback, LoopWithoutRangeRunsOnAndStopRewinds) {
    Song song;
    song.seq->setLoopRange(3840, 3840);
    song.engine.setLoop(true);
    CSeqProg& prog = *song.seq->currentProg();
    song.engine.start();
    song.runFor(48000 * 3, 1024);
    EXPECT_GT(prog.position.load(), 3840.0 * 1.4) << "an empty loop never wraps";
    song.engine.stop();
    song.runFor(1024, 1024);
    EXPECT_EQ(prog.position.load(), 0.0) << "rewind on stop returns to where play started";
}

// With every track full and a tempo point on every beat, which the cycle walks to follow the tempo.
TEST(Playback, LongSongAllocatesNothingInTheCycle) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    Song song(48000.0f, 120.0f, 64);
    songtest::populate(song, 4, 196, 9);  // 50,176 notes
    for (int32_t tick = 960; tick < 3840 * 64; tick += 960) {
        auto* point = new CTempoPart();
        point->start = tick, point->tempo = static_cast<float>(90 + tick / 960 % 60);
        song.seq->currentProg()->tempos.add(point);
    }
    song.recorder->received.clear();
    song.recorder->received.shrink_to_fit();
    song.recorder->received.reserve(1 << 20);
    song.seq->setLoopRange(0, 3840 * 64);
    song.engine.setLoop(true);
    song.engine.start();
    song.runFor(8192, 1024);
    int64_t allocations = 0;
    {
        rtprobe::Scope probe;
        for (int i = 0; i < 2000; ++i) {
            if (i % 500 == 250) song.engine.setPosition(i * 97.0);
            song.cycle(1024);
        }
        allocations = probe.allocations();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_GT(song.recorder->received.size(), 10000u);
    EXPECT_NE(song.engine.bpm.load(), 120.0f) << "the tempo followed the points";
}

TEST(Playback, AutomationRampsInStepsAndEndsAtThePartEnd) {
    Song song(48000.0f, 120.0f);  // 25 frames a tick
    song.engine.setLoop(false);
    int target = 0;
    auto* lane = new CSubTrack(laneAutomation);
    lane->slot = 0;
    lane->controller = 3;
    lane->target = &target;
    song.seq->tracks.getAt(0)->subTracks.add(lane);
    CMIDIPart* part = song.addPart(0, 0, 1920);
    CEventRec** link = &part->automation[0];
    int32_t last = 0;
    for (auto [tick, value] : {std::pair{0, 0.0f}, {960, 1.0f}, {3000, 0.25f}}) {  // the last beyond the part's end
        auto* point = new CAutomationRec();
        point->value = value;
        point->delta = static_cast<uint32_t>(tick - last);
        last = tick;
        *link = point;
        link = &point->next;
    }
    song.engine.start();
    song.runFor(25 * 2500, 512);

    std::vector<Recorder::Item> values;
    for (const auto& item : song.recorder->received)
        if (item.type == EventType::param) values.push_back(item);
    ASSERT_GT(values.size(), 20u);
    EXPECT_EQ(values.front().target, &target);
    EXPECT_FLOAT_EQ(values.front().value, 0.0f);
    constexpr double rampEnd = 960 * 25.0, partEnd = 1920 * 25.0;
    bool reachedTop = false;
    for (size_t i = 0; i < values.size(); ++i) {
        const auto& v = values[i];
        if (i > 0) {
            EXPECT_GE(v.frame, values[i - 1].frame);
            if (v.frame <= rampEnd) {
                EXPECT_LE(v.frame - values[i - 1].frame, 32.0 + 1e-9) << "steps of at most 32 frames";
            }
        }
        if (v.frame <= rampEnd) {
            EXPECT_NEAR(v.value, v.frame / rampEnd, 32.0 / rampEnd + 1e-4) << v.frame;
        }
        reachedTop = reachedTop || (v.frame == rampEnd && v.value == 1.0f);
        EXPECT_LT(v.frame, partEnd + 32.0) << "nothing is sent past the part's end";
        EXPECT_NE(v.value, 0.25f) << "a point beyond the part's end is never sent";
    }
    EXPECT_TRUE(reachedTop);
}

TEST(Playback, TempoPointsDriveTheTempoAtBlockBoundaries) {
    Song song(48000.0f, 120.0f);
    song.engine.setLoop(false);
    CSeqProg& prog = *song.seq->currentProg();
    for (auto [tick, bpm] : {std::pair{1920, 60.0f}, {3840, 300.0f}}) {  // 300 is beyond what playback runs
        auto* point = new CTempoPart();
        point->start = tick, point->tempo = bpm;
        prog.tempos.add(point);
    }
    song.engine.start();
    constexpr int32_t block = 480;  // 19.2 ticks at 120 BPM
    float tempoBefore = song.engine.bpm.load();
    while (prog.position.load() < 5000.0) {
        const double headPosition = prog.position.load();
        song.cycle(block);
        const float tempo = song.engine.bpm.load();
        if (tempo != tempoBefore) {
            // A change takes effect at the head of the first cycle that begins within one block of its point.
            const double point = tempo == 60.0f ? 1920.0 : 3840.0;
            EXPECT_LE(headPosition, point + 1.0);
            EXPECT_GT(headPosition + block * tempoBefore * 16.0 / 48000.0 * 2, point);
            tempoBefore = tempo;
        }
    }
    EXPECT_EQ(song.engine.bpm.load(), 250.0f);
}

TEST(Playback, MutingDuringPlaySendsNoteOffsAtOnceAndSilencesTheTrack) {
    Song song(48000.0f, 120.0f);
    song.engine.setLoop(false);
    CMIDIPart* part = song.addPart(0, 0, 3840 * 4);
    for (int32_t t = 0; t < 3840 * 4; t += 480) Song::addNote(*part, t, static_cast<uint8_t>(50 + t / 480 % 20), 3000);
    song.engine.start();
    song.runFor(25 * 2000, 512);
    ASSERT_FALSE(soundingNotes(song.recorder->received).empty());
    auto& flags = song.seq->tracks.getAt(0)->flags;
    flags.fetch_or(trackflag::muted);
    song.cycle(512);
    EXPECT_TRUE(soundingNotes(song.recorder->received).empty()) << "all note-offs in the next cycle";
    const size_t count = song.recorder->received.size();
    song.runFor(25 * 4000, 512);
    EXPECT_EQ(song.recorder->received.size(), count) << "a muted track plays nothing";
    flags.fetch_and(~trackflag::muted);
    song.runFor(25 * 2000, 512);
    EXPECT_GT(song.recorder->received.size(), count) << "unmuted, the next notes play";
}

TEST(Playback, ThruPassesArmedTracksWithTransposeChannelAndSensitivity) {
    Song song(48000.0f, 120.0f);
    CTrack& track = *song.seq->tracks.getAt(0);
    track.flags.fetch_or(trackflag::armed);
    track.transpose = 12;
    track.channel = 5;
    track.inputSens = 0;  // every note at full velocity
    auto* keys = new CMIDIIn(&song.engine);
    keys->createPorts();
    song.engine.addComp(keys);
    song.seq->midiCablesIn.add(makeMIDICable(song.seq, keys->firstOutputPort(), track.firstInputPort()));
    const auto play = [&](bool withNoteOff) {
        song.recorder->received.clear();
        song.engine.beginCycle(256);
        keys->firstOutputPort()->appendEvent(10.0, packMIDI(0x90, 60, 20));
        if (withNoteOff) keys->firstOutputPort()->appendEvent(20.0, packMIDI(0x80, 60, 0));
        song.engine.process(256);
        song.recorder->process(256);
    };

    play(true);
    ASSERT_EQ(song.recorder->received.size(), 2u);
    EXPECT_EQ(song.recorder->received[0].midi, packMIDI(0x95, 72, 127));
    EXPECT_DOUBLE_EQ(song.recorder->received[0].frame, 10.0);
    EXPECT_EQ(song.recorder->received[1].midi, packMIDI(0x85, 72, 0));

    track.flags.fetch_and(~trackflag::armed);  // not armed, monitor off: nothing passes
    play(false);
    EXPECT_TRUE(song.recorder->received.empty());
}
