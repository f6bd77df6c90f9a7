#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "engine/undo.h"
#include "fx/delay.h"
#include "sound_rig.h"
#include "support/compare.h"
#include "support/rt_probe.h"

using namespace comparetest;
using namespace soundtest;

namespace {

constexpr double rate = 48000.0;

CSound& soundAt(CSynthProg& prog, int32_t layer, int32_t index) { return *prog.layers.getAt(layer)->sounds.getAt(index); }

// Pitch in semitones (key numbers) from the spacing of upward zero crossings: one value per period,
// placed at the period's middle.
std::vector<std::pair<double, double>> pitchTrack(const std::vector<float>& x, size_t from, size_t to) {
    std::vector<std::pair<double, double>> track;
    double last = -1.0;
    for (size_t n = from + 1; n < to; ++n) {
        if (!(x[n - 1] < 0.0f && x[n] >= 0.0f)) continue;
        const double at = static_cast<double>(n - 1) + x[n - 1] / (x[n - 1] - x[n]);
        if (last >= 0.0) {
            const double hz = rate / (at - last);
            track.emplace_back((at + last) / 2.0, 69.0 + 12.0 * std::log2(hz / 440.0));
        }
        last = at;
    }
    return track;
}

}  // namespace

TEST(SamplerVoices, The65thNoteIsDroppedWithoutDisturbingTheOthers) {
    auto render = [](bool extra) {
        Rig rig;
        std::vector<std::pair<int64_t, uint32_t>> events;
        for (int32_t k = 0; k < CSampler::voiceCount; ++k) events.emplace_back(k * 7, noteOn(30 + k));
        if (extra) events.emplace_back(1500, noteOn(100));
        rig.render(4096, events);
        EXPECT_EQ(rig.sampler->soundingVoices(), CSampler::voiceCount);
        for (const SamplerVoice& voice : rig.sampler->voices) EXPECT_NE(voice.note, 100);
        return std::make_pair(rig.left, rig.right);
    };
    const auto without = render(false);
    const auto with = render(true);
    EXPECT_EQ(firstDifference(without.first, with.first), noDifference);
    EXPECT_EQ(firstDifference(without.second, with.second), noDifference);
}

TEST(SamplerVoices, ANonZeroGroupTakesOverItsVoiceAtOnce) {
    struct Row {
        const char* what;
        uint8_t groupA, groupB;
        int32_t expectedVoices;
    } rows[] = {
        {"same group, across two sounds", 1, 1, 1},
        {"different groups", 1, 2, 2},
        {"no group", 0, 0, 2},
    };
    constexpr int64_t second = 700;
    for (const Row& row : rows) {
        auto render = [&](bool first) {
            Rig rig;
            CSound& a = rig.plainSound();
            a.keyHigh = 63;
            a.group = row.groupA;
            auto* b = new COSCSound();
        b->keyLow = 64;
        b->group = row.groupB;
        b->setBlockSize(rig.block);
        rig.prog().layers.getAt(0)->addSound(b);
            std::vector<std::pair<int64_t, uint32_t>> events;
            if (first) events.emplace_back(0, noteOn(40));
            events.emplace_back(second, noteOn(80));
            rig.render(3072, events);
            EXPECT_EQ(rig.sampler->soundingVoices(), first ? row.expectedVoices : 1) << row.what;
            return rig.left;
        };
        const std::vector<float> both = render(true);
        const std::vector<float> alone = render(false);
        if (row.expectedVoices == 1)
            EXPECT_EQ(firstDifference(both, alone, second), noDifference) << row.what << ": the takeover is not instant";
        else
            EXPECT_NE(firstDifference(both, alone, second), noDifference) << row.what;
    }
}

TEST(SamplerVoices, MonoGlidesFromTheCurrentPitch) {
    Rig rig;
    COSCSound& sound = rig.plainSound();
    sound.mode = modeMono;
    sound.glide = 200;
    const int64_t glide = static_cast<int64_t>(0.2 * rate);
    const int64_t up = 24000, back = up + glide / 2;
    rig.render(back + glide + 12000, {{0, noteOn(60)}, {up, noteOn(72)}, {back, noteOn(60)}, {back + 100, noteOff(72)}});
    EXPECT_EQ(rig.sampler->soundingVoices(), 1);

    // 60 until `up`, a straight line to 72 over the glide, turned back halfway (at 66) towards 60.
    auto expected = [&](double t) {
        if (t < up || t >= back + glide) return 60.0;
        return t < back ? 60.0 + 12.0 * (t - up) / glide : 66.0 - 6.0 * (t - back) / glide;
    };
    int32_t checked = 0;
    for (const auto& [t, pitch] : pitchTrack(rig.left, 2000, rig.left.size())) {
        ASSERT_NEAR(pitch, expected(t), 0.1) << "at sample " << t;
        ++checked;
    }
    EXPECT_GT(checked, 250);
}

TEST(SamplerVoices, MonoRetargetDuringReleaseRestartsTheSameVoice) {
    Rig rig;
    COSCSound& sound = rig.plainSound();
    sound.mode = modeMono;
    sound.envelope[0].releaseTime = 0.5f;  // 1.25 s
    rig.render(2048, {{0, noteOn(60)}, {1024, noteOff(60)}});
    const int32_t voice = CSampler::voiceCount - 1;
    ASSERT_EQ(rig.sampler->voices[voice].modState[0].stage, stageRelease);
    rig.render(1024, {{10, noteOn(64)}});
    EXPECT_EQ(rig.sampler->soundingVoices(), 1);
    EXPECT_EQ(rig.sampler->voices[voice].note, 64);
    EXPECT_NE(rig.sampler->voices[voice].modState[0].stage, stageRelease);
    // The old key's note-off finds nothing: the voice plays on.
    rig.render(1024, {{10, noteOff(60)}});
    EXPECT_NE(rig.sampler->voices[voice].modState[0].stage, stageRelease);
}

TEST(SamplerVoices, AClosingVoiceIsSilentAndNotReused) {
    constexpr int64_t during = 600;  // inside the 10 ms that follow the note-off at 512
    auto render = [&](bool first) {
        Rig rig(256);
        rig.plainSound().envelope[0].releaseTime = 0.0f;
        std::vector<std::pair<int64_t, uint32_t>> events;
        if (first) events = {{0, noteOn(60)}, {512, noteOff(60)}};
        events.emplace_back(during, noteOn(67));
        rig.render(768, events);
        int32_t closing = -1, playing = -1;
        for (int32_t i = 0; i < CSampler::voiceCount; ++i) {
            const SamplerVoice& voice = rig.sampler->voices[i];
            if (voice.state == voiceSounding && voice.closing > 0) closing = i;
            if (voice.state == voiceSounding && voice.note == 67) playing = i;
        }
        rig.render(1024);
        return std::make_tuple(closing, playing, rig.sampler->soundingVoices(), rig.left);
    };
    const auto [closing, playing, sounding, both] = render(true);
    EXPECT_EQ(closing, CSampler::voiceCount - 1);
    EXPECT_EQ(playing, CSampler::voiceCount - 2) << "the note during the closing interval takes the next voice";
    EXPECT_EQ(sounding, 1) << "the closed voice is free again";
    const std::vector<float> alone = std::get<3>(render(false));
    EXPECT_EQ(firstDifference(both, alone, during), noDifference) << "the closing voice adds nothing";
}

TEST(SamplerVoices, TheClosingIntervalLasts10Milliseconds) {
    // Release 0: 480 samples follow the note-off, counted by the process calls after the one that ended it.
    constexpr int32_t block = 64;
    Rig rig(block);
    rig.plainSound().envelope[0].releaseTime = 0.0f;
    rig.render(block * 10, {{0, noteOn(60)}});
    rig.render(block, {{0, noteOff(60)}});
    int32_t calls = 0;
    while (rig.sampler->soundingVoices() > 0 && calls < 100) {
        rig.render(block);
        ++calls;
    }
    EXPECT_EQ(calls, (480 + block - 1) / block);
}

TEST(SamplerEvents, OtherChannelsDoNothingAndCutNothing) {
    auto render = [](bool foreign) {
        Rig rig;
        rig.sampler->mch = 3;
        std::vector<std::pair<int64_t, uint32_t>> events = {{0, noteOn(60, 100, 3)}};
        if (foreign) {
            events.emplace_back(333, noteOn(64, 100, 4));
            events.emplace_back(555, control(7, 10, 4));
            events.emplace_back(777, noteOff(60, 4));
        }
        rig.render(2048, events);
        EXPECT_EQ(rig.sampler->soundingVoices(), 1);
        return rig.left;
    };
    EXPECT_EQ(firstDifference(render(false), render(true)), noDifference);
}

TEST(SamplerEvents, AllNotesOffStopsEveryVoiceWithoutRelease) {
    Rig rig;
    rig.render(1024, {{0, noteOn(60)}, {0, noteOn(64)}, {0, noteOn(67)}});
    rig.render(1024, {{300, control(123, 0)}});
    EXPECT_EQ(rig.sampler->soundingVoices(), 0);
    for (size_t n = 1024 + 300; n < rig.left.size(); ++n) ASSERT_EQ(rig.left[n], 0.0f) << n;
    EXPECT_NE(rig.left[1024 + 299], 0.0f);
}

TEST(SamplerEvents, PitchWheelMovesByTheBendRange) {
    struct Row {
        int32_t wheel;
        int32_t bendRange;
        double semitones;
    } rows[] = {{8192 + 4096, 12, 6.0}, {0, 2, -2.0}, {8192 + 2048, 4, 1.0}};
    for (const Row& row : rows) {
        Rig rig;
        rig.plainSound().bendRange = row.bendRange;
        rig.render(48000 + 4096, {{0, pitchWheel(row.wheel)}, {0, noteOn(69)}});
        const FourierPeaks peaks(rig.left, 4096, 48000, rate);
        const double expected = 440.0 * std::pow(2.0, row.semitones / 12.0) * 65535.0 / 65536.0;
        EXPECT_NEAR(cents(peaks.peak(expected * 0.97, expected * 1.03), expected), 0.0, 0.5) << row.wheel;
    }
}

TEST(SamplerEvents, ControllersAndParametersSetTheBaseFieldsThroughTheMap) {
    struct Row {
        int32_t target;
        float COSCSound::*field;
        float (*expected)(float v);
    } rows[] = {
        {targetVolume, &COSCSound::volume, [](float v) { return v; }},
        {targetPan, &COSCSound::pan, [](float v) { return 2.0f * v - 1.0f; }},
        {targetQ, &COSCSound::q, [](float v) { return v; }},
        {targetModFB, &COSCSound::feed2, [](float v) { return v; }},
    };
    for (const Row& row : rows) {
        Rig rig;
        COSCSound& sound = rig.plainSound();
        sound.ccMap[20] = row.target;
        rig.sampler->setParam(20, 0.25f);
        EXPECT_FLOAT_EQ(sound.*row.field, row.expected(0.25f)) << targetName(row.target);
        EXPECT_EQ(rig.sampler->getParamName(20), CString(targetName(row.target)));
        rig.cycle({{10, control(20, 100)}});
        EXPECT_FLOAT_EQ(sound.*row.field, row.expected(100.0f / 127.0f)) << targetName(row.target);
        EXPECT_FLOAT_EQ(rig.sampler->getParam(20), 0.25f) << "a controller leaves the parameter table alone";
    }
    Rig rig;
    COSCSound& sound = rig.plainSound();
    rig.cycle({{0, packMIDI(0xB0, 200, 5)}});  // a controller number beyond 7 bits is no controller
    EXPECT_EQ(sound.volume, 1.0f);
    EXPECT_EQ(rig.sampler->getParamName(21), CString("CC-21"));
    rig.sampler->setParam(21, 0.126f);
    EXPECT_EQ(rig.sampler->getParamDisplay(21), CString("0.13"));
    rig.sampler->setParam(128, 0.5f);
    EXPECT_EQ(rig.sampler->getParam(128), 0.0f);
    EXPECT_EQ(rig.sampler->getParamName(128), CString());
}

TEST(SamplerEvents, ParameterEventsApplyAtTheirFrame) {
    Rig rig;
    COSCSound& sound = rig.plainSound();
    sound.ccMap[5] = targetVolume;
    rig.sampler->setParam(5, 1.0f);
    rig.render(1024, {{0, noteOn(69)}});
    rig.engine.beginCycle(rig.block);
    rig.in->firstOutputPort()->addEvent(512.0, 0, EventType::param, 0.0f, 5, rig.sampler);
    rig.engine.process(rig.block);
    EXPECT_EQ(sound.volume, 0.0f);
    EXPECT_FLOAT_EQ(rig.sampler->getParam(5), 0.0f);
    const COutputChannel* out = rig.sampler->firstOutputChannel();
    EXPECT_NE(out->left()[511], 0.0f);
    // From 0.36 the gain falls by at most the slew limit, 1/(2 pi) a millisecond: two chunks at the limit
    // and a third that ends the ramp.
    for (int32_t n = 512 + 3 * 48; n < rig.block; ++n) ASSERT_EQ(out->left()[n], 0.0f) << n;
    EXPECT_NE(out->left()[512 + 2 * 48], 0.0f);
}

TEST(SamplerSends, OnlyAnEnabledEffectWithALevelGetsTheSound) {
    struct Row {
        bool enabled;
        float level;
        bool fed;
    } rows[] = {{true, 0.5f, true}, {true, 0.0f, false}, {false, 0.5f, false}};
    for (const Row& row : rows) {
        Rig rig;
        CFX& delay = *rig.prog().delay();
        delay.setEnabled(row.enabled);
        rig.plainSound().sends[1] = row.level;
        rig.render(1024, {{0, noteOn(69)}});
        double energy = 0.0;
        for (int32_t n = 0; n < rig.block; ++n) energy += std::fabs(delay.inputL[n]) + std::fabs(delay.inputR[n]);
        EXPECT_EQ(energy > 0.0, row.fed) << row.enabled << " " << row.level;
    }
}

TEST(SamplerPrograms, SwitchingLeavesSoundingVoicesAlone) {
    Rig rig;
    ASSERT_TRUE(rig.sampler->addDefaultProgram(nullptr));
    EXPECT_EQ(rig.sampler->program, 1);
    rig.sampler->setProgram(0);
    rig.render(1024, {{0, noteOn(60)}});
    rig.sampler->changeFlags = 0;
    for (int32_t index : {0, -1, 2}) {
        rig.sampler->setProgram(index);
        EXPECT_EQ(rig.sampler->program, 0);
        EXPECT_EQ(rig.sampler->changeFlags.load() & change::program, 0u);
    }
    rig.sampler->setProgram(1);
    EXPECT_EQ(rig.sampler->program, 1);
    EXPECT_NE(rig.sampler->changeFlags.load() & change::program, 0u);
    rig.render(1024);
    EXPECT_EQ(rig.sampler->soundingVoices(), 1);
    EXPECT_NE(rig.left.back(), 0.0f);
}

TEST(SamplerPrograms, UndoStepsAddAndDeleteProgramsAndSounds) {
    Rig rig;
    CSampler& sampler = *rig.sampler;
    CUndo* add = beginUndo(rig.engine, "Add program", &sampler, 0);
    ASSERT_TRUE(sampler.addDefaultProgram(add));
    rig.engine.postUndo(add, true);
    EXPECT_EQ(sampler.programs.count(), 2);
    EXPECT_EQ(sampler.program, 1) << "the added program becomes current";
    for (CObject* object : sampler.programs) {
        auto* delay = static_cast<CDelay*>(static_cast<CSynthProg*>(object)->delay());
        EXPECT_EQ(std::tie(delay->sharedBuffers, delay->bufL, delay->bufR),
                  std::make_tuple(1, sampler.delayL.get(), sampler.delayR.get()))
            << "the delays of every program share the sampler's memory";
    }

    rig.render(1024, {{0, noteOn(60)}, {0, noteOn(64)}});
    EXPECT_EQ(sampler.soundingVoices(), 2);
    CSound& sound = soundAt(rig.prog(), 0, 0);
    CUndo* remove = beginUndo(rig.engine, "Delete sound", &sampler, 0);
    sampler.deleteSound(*remove, sound);
    rig.engine.postUndo(remove, true);
    EXPECT_EQ(sampler.soundingVoices(), 0) << "voices of a deleted sound stop before it can be freed";
    rig.engine.undo();
    rig.engine.guiTick();
    EXPECT_EQ(rig.prog().layers.getAt(0)->sounds.count(), 1);

    for (int32_t k = 0; k < 2; ++k) {
        CUndo* step = beginUndo(rig.engine, "Delete program", &sampler, 0);
        sampler.deleteProgram(*step, 0);
        rig.engine.postUndo(step, true);
    }
    ASSERT_EQ(sampler.programs.count(), 1) << "deleting the only program leaves the default one";
    EXPECT_EQ(sampler.program, 0);
    const CSynthProg& left = *sampler.currentProgram();
    ASSERT_EQ(left.layers.count(), 1);
    const auto& only = *static_cast<const COSCSound*>(left.layers.getAt(0)->sounds.getAt(0));
    EXPECT_EQ(only.feed1, 0.9f);
    EXPECT_EQ(only.detune, 0.4f);
    EXPECT_EQ(only.width, 0.2f);
}

TEST(SamplerQueue, NotesPostedByTheEditorPlayAtTheirFrame) {
    Rig rig;
    ASSERT_TRUE(rig.sampler->postEvent(noteOn(69), 300.0));
    rig.cycle();
    EXPECT_EQ(rig.sampler->soundingVoices(), 1);
    for (int32_t n = 0; n < 300; ++n) ASSERT_EQ(rig.left[n], 0.0f);
    EXPECT_NE(rig.left[310], 0.0f);
    for (uint32_t k = 0; k < CEventQueue::capacity; ++k) ASSERT_TRUE(rig.sampler->postEvent(noteOff(69)));
    EXPECT_FALSE(rig.sampler->postEvent(noteOff(69))) << "the queue holds 511 events";
}

TEST(SamplerRealTime, SixtyFourVoicesRenderWithoutAllocating) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    Rig rig;
    CSynthProg& prog = rig.prog();
    prog.reverb()->setEnabled(true);
    prog.delay()->setEnabled(true);
    CSound& sound = soundAt(prog, 0, 0);
    sound.sends[0] = sound.sends[1] = 0.3f;
    sound.fx[0]->setEnabled(true);
    sound.fx[1]->setEnabled(true);
    sound.lfo[0].wave = waveRandom;
    sound.ccMap[74] = targetCutoff;
    std::vector<std::pair<double, uint32_t>> all;
    for (int32_t k = 0; k < CSampler::voiceCount; ++k) all.emplace_back(k, noteOn(30 + k));
    rig.cycle(all);
    ASSERT_EQ(rig.sampler->soundingVoices(), CSampler::voiceCount);

    // Wheel and a mapped controller every cycle; every eighth cycle eight keys are let go and taken again
    // four cycles later, and a note in between finds no voice.
    int32_t fewest = CSampler::voiceCount;
    int64_t allocations = 0;
    {
        rtprobe::Scope probe;
        for (int32_t cycle = 0; cycle < 200; ++cycle) {
            rig.engine.beginCycle(rig.block);
            CMIDIQ& port = *rig.in->firstOutputPort();
            port.addEvent(10.0, pitchWheel((cycle * 97) % 16384));
            port.addEvent(20.0, control(74, cycle % 128));
            if (cycle % 8 == 1) port.addEvent(30.0, noteOn(100));
            const int32_t group = (cycle / 8) % 8;
            for (int32_t k = 0; k < 8; ++k) {
                const int32_t key = 30 + group * 8 + k;
                if (cycle % 8 == 0) port.addEvent(100.0 + k, noteOff(key));
                if (cycle % 8 == 4) port.addEvent(100.0 + k, noteOn(key));
            }
            rig.engine.process(rig.block);
            fewest = std::min(fewest, rig.sampler->soundingVoices());
        }
        allocations = probe.allocations();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(rig.sampler->soundingVoices(), CSampler::voiceCount);
    EXPECT_EQ(fewest, CSampler::voiceCount - 8) << "voices were freed and taken again inside the probe";
}
