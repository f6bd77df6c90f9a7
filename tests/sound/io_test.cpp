#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "core/stream.h"
#include "fx/chorus.h"
#include "fx/delay.h"
#include "fx/phaser.h"
#include "fx/reverb.h"
#include "sound_rig.h"
#include "support/bytes.h"

using namespace bytestest;
using namespace soundtest;

namespace {

// Every saved field of a sound away from its default, each to a value of its own.
void fill(COSCSound& sound, int32_t seed) {
    float next = 0.01f * static_cast<float>(seed + 1);
    auto value = [&next]() { return next += 0.0137f; };
    sound.name = concat("sound ", intToString(seed));
    for (float* field : {&sound.volume, &sound.cutoff, &sound.q, &sound.fine, &sound.sends[0], &sound.sends[1], &sound.feed1,
                         &sound.detune, &sound.phase, &sound.width, &sound.feed2, &sound.phaseMod, &sound.phase2,
                         &sound.oscRing, &sound.modRing})
        *field = value();
    sound.pan = -value();
    sound.mode = modeMono;
    sound.mute = sound.drumFlag = sound.solo = 1;
    sound.group = static_cast<uint8_t>(3 + seed);
    sound.filter = filterHigh;
    sound.dist = 1;
    sound.glide = 123 + seed;
    sound.bendRange = 5;
    sound.keyLow = 10 + seed;
    sound.keyHigh = 100;
    sound.velLow = 5;
    sound.velHigh = 120;
    sound.pmMul = 4;
    sound.coarse = -7.0f;
    sound.coarse2 = 12.0f;
    sound.oscInv = -1.0f;
    for (CMod* mod : std::initializer_list<CMod*>{&sound.vel, &sound.cp, &sound.envelope[2], &sound.envelope[5],
                                                  &sound.lfo[0], &sound.lfo[3]}) {
        for (RoutingEntry& entry : mod->params) {
            entry.flag = 0;
            entry.index = static_cast<int32_t>(value() * 100.0f) % targetCount;
            entry.amount = value();
        }
    }
    for (CEnv& env : sound.envelope) {
        env.enabled = static_cast<uint8_t>(1 - env.enabled);
        for (float* field : {&env.initial, &env.attack, &env.ac, &env.decay, &env.dc, &env.sustain, &env.releaseTime, &env.rc})
            *field = value();
        env.timeScale = 700 + seed;
    }
    for (CLFO& lfo : sound.lfo) {
        lfo.rate = value();
        lfo.wave = waveSaw;
        lfo.sync = 1;
        lfo.mul = 3;
        lfo.div = 7;
        lfo.delay = 250;
        lfo.inv = 0;
        lfo.restart = restartMono;
    }
    for (int32_t c = 0; c < controllerCount; ++c) sound.ccMap[c] = (c * 7 + seed) % targetCount;
    auto& phaser = static_cast<CPhaser&>(*sound.fx[0]);
    auto& chorus = static_cast<CChorus&>(*sound.fx[1]);
    for (CFX* fx : {static_cast<CFX*>(&phaser), static_cast<CFX*>(&chorus)}) fx->setEnabled(true);
    for (float* field : {&phaser.dry, &phaser.wet, &phaser.rate, &phaser.feedback, &chorus.dry, &chorus.wet, &chorus.depth,
                         &chorus.feedback})
        *field = value();
    phaser.phase = 45.0f;
    phaser.rangeMin = 300.0f;
    phaser.rangeMax = 5000.0f;
    chorus.delay = 12.0f;
    chorus.phase = 60.0f;
    chorus.rate = 1.5f;
}

// Three programs, the middle one current, with two layers of which the second is selected, both send
// effects on, and every field away from its default.
void enrich(CSampler& sampler) {
    sampler.mch = 5;
    sampler.options[0] = 3;
    sampler.options[31] = 0xAB;
    sampler.addDefaultProgram(nullptr);
    sampler.addDefaultProgram(nullptr);
    int32_t seed = 0;
    for (CObject* object : sampler.programs) {
        auto& prog = *static_cast<CSynthProg*>(object);
        prog.name = concat("program ", intToString(seed));
        CLayer* second = prog.addLayer();
        second->editAll = 1;
        for (int32_t k = 0; k < 2; ++k) second->addSound(new COSCSound());
        prog.selectedLayer = second;
        for (CLayer* layer : prog.layers)
            for (CSound* sound : layer->sounds) fill(static_cast<COSCSound&>(*sound), seed++);
        auto& reverb = static_cast<CReverb&>(*prog.reverb());
        reverb.setEnabled(true);
        reverb.dry = 0.3f;
        reverb.wet = 0.7f;
        reverb.setPreDelay(40 + seed);
        reverb.setSizeMs(2500 + seed);
        auto& delay = static_cast<CDelay&>(*prog.delay());
        delay.setEnabled(true);
        delay.dry = 0.2f;
        delay.wet = 0.9f;
        delay.setFeedback(0.4f);
        delay.setSync(0);
        delay.setMulLeft(2);
        delay.setDivLeft(3);
        delay.setMulRight(4);
        delay.setDivRight(5);
        delay.setDelayTimeLeft(300.0f + seed);
        delay.setDelayTimeRight(450.0f);
    }
    sampler.setProgram(1);
}

// Messages of damaged blocks, as a main window would show them.
std::vector<std::string> prompts;
void capturePrompt(const CString& caption, const CString& text) {
    prompts.push_back(std::string(caption.c_str()) + "|" + text.c_str());
}

// A stream built by hand from the block layout, with the routing entries of a modulation source.
struct SamplerBytes : BasicBytes<SamplerBytes> {
    SamplerBytes& block(const char* tag, const std::vector<uint8_t>& payload) {
        header(tag, static_cast<uint32_t>(payload.size()));
        data.insert(data.end(), payload.begin(), payload.end());
        return *this;
    }
    SamplerBytes& routing(uint8_t flag, float amount, int32_t index) { return u8(flag).f32(amount).i32(index); }
    SamplerBytes& envelope(float base, int32_t timeScale) {
        u8(1).zeros(3);
        for (int k = 0; k < 8; ++k) f32(base + 0.01f * static_cast<float>(k));
        return zeros(8).i32(timeScale);
    }
};

// Loads, then plays a few notes: a damaged state must also render safely.
void loadAndPlay(Rig& rig, const std::vector<uint8_t>& bytes) {
    loadBytes(*rig.sampler, bytes);
    ASSERT_GE(rig.sampler->programs.count(), 1);
    rig.cycle({{0, noteOn(60)}, {10, noteOn(72, 1)}, {500, control(7, 64)}, {600, noteOff(60)}});
    rig.cycle({{0, control(123, 0)}});
}

}  // namespace

TEST(SamplerFile, SaveLoadSaveGivesIdenticalBytes) {
    Rig rig;
    enrich(*rig.sampler);
    const std::vector<uint8_t> first = saved(*rig.sampler);

    Rig other;
    loadBytes(*other.sampler, first);
    EXPECT_EQ(saved(*other.sampler), first);

    std::unique_ptr<CComp> twin(rig.sampler->copy());
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(saved(*twin), first) << "a copy carries the whole state";
}

TEST(SamplerFile, WritesTheBlocksInTheirOrderAndSizes) {
    Rig rig;
    CMemoryStream stream;
    fill(stream, saved(*rig.sampler));
    const std::pair<const char*, uint32_t> expected[] = {
        {"filetype", 4}, {"mch", 4},        {"progi", 4},   {"prog", 0},        {"progid", 11},
        {"layer", 0},    {"laex", 32},      {"sound", 186}, {"soundmod", 840},  {"soundfx", 86},
        {"progfx", 106}, {"reverbSize", 4}, {"layeri", 4},  {"options", 32},
    };
    CBlockReader blocks(stream, stream.getSize());
    size_t index = 0;
    while (blocks.next()) {
        ASSERT_LT(index, std::size(expected));
        EXPECT_EQ(blocks.tag(), CString(expected[index].first)) << index;
        EXPECT_EQ(blocks.size(), expected[index].second) << expected[index].first;
        if (blocks.is("filetype")) {
            uint32_t type = 0;
            stream.readU32(type);
            EXPECT_EQ(type, 3u);
        }
        blocks.skip();
        ++index;
    }
    EXPECT_EQ(index, std::size(expected));
}

TEST(SamplerFile, ReadsFieldsFromTheirPlaces) {
    // A stored oscInv of -1 inverts; any other value does not.
    for (const auto& [oscInv, expectedInv] : {std::pair{-1, -1.0f}, {7, 1.0f}, {0, 1.0f}}) {
        SamplerBytes w;
        w.block("filetype", Bytes().i32(3).data).block("mch", Bytes().i32(9).data).block("prog", {});
        w.block("progid", Bytes().text("Lead").data).block("layer", {}).block("laex", Bytes().u8(1).zeros(3 + 28).data);
        Bytes sound;
        sound.u8(soundOscillator).text("saw").u8(1).u8(4).zeros(2);
        sound.f32(0.8f).f32(-0.25f).i32(2).f32(0.7f).f32(0.3f).i32(1).zeros(8);
        sound.f32(-12.0f).f32(0.5f).i32(250).i32(7).zeros(56).f32(0.125f).f32(0.375f).zeros(4);
        sound.u8(1).u8(0).u8(1).u8(0).u8(24).u8(96).u8(10).u8(110);
        sound.f32(0.11f).f32(0.12f).f32(0.13f).f32(0.14f).f32(0.15f).f32(0.16f).f32(-24.0f).f32(0.17f);
        sound.i32(3).i32(oscInv).f32(0.18f).f32(0.19f);
        w.block("sound", sound.data);
        SamplerBytes mod;
        mod.routing(0, 0.5f, 4).routing(1, 0.25f, 3).routing(1, 0, 0).routing(1, 0, 0);
        mod.envelope(0.2f, 900).envelope(0.3f, 900);
        for (int32_t i = 0; i < lfoCount; ++i) {
            mod.u8(static_cast<uint32_t>(i)).f32(1.5f + i).u8(1).u8(2 + i).u8(3).i32(100 * i).u8(0).u8(2).zeros(2);
            mod.routing(1, 0.1f * i, 9).routing(1, 0, 0).routing(1, 0, 0).routing(1, 0, 0);
        }
        for (float base : {0.4f, 0.5f, 0.6f, 0.7f})
            mod.envelope(base, 1200).routing(1, base, 8).routing(1, 0, 0).routing(1, 0, 0).routing(1, 0, 0);
        mod.routing(1, 0.9f, 2).routing(1, 0, 0).routing(1, 0, 0).routing(1, 0, 0);
        for (int32_t c = 0; c < controllerCount; ++c) mod.u8(c == 7 ? targetVolume : 0);
        w.block("soundmod", mod.data);
        w.block("soundfx", Bytes().u8(1).f32(0.4f).f32(0.6f).f32(0.2f).f32(0.5f).f32(30.0f).f32(100.0f).f32(9000.0f).zeros(16)
                               .u8(0).f32(0.45f).f32(0.55f).f32(15.0f).f32(0.2f).f32(75.0f).f32(0.3f).f32(2.0f).zeros(12)
                               .data);
        w.block("progfx", Bytes().u8(1).f32(0.1f).f32(0.9f).i32(999).f32(3000.0f).zeros(32)
                              .u8(1).f32(0.2f).f32(0.8f).f32(0.35f).i32(0).i32(2).i32(3).i32(4).i32(5).f32(120.0f).f32(240.0f).zeros(16)
                              .data);
        w.block("reverbSize", Bytes().i32(3500).data).block("layeri", Bytes().i32(0).data);
        w.block("progi", Bytes().i32(0).data);

        Rig rig;
        loadBytes(*rig.sampler, w.data);
        CSampler& sampler = *rig.sampler;
        ASSERT_EQ(sampler.programs.count(), 1);
        EXPECT_EQ(sampler.mch, 9);
        CSynthProg& prog = *sampler.currentProgram();
        EXPECT_EQ(prog.name, CString("Lead"));
        ASSERT_EQ(prog.layers.count(), 1);
        EXPECT_EQ(prog.selectedLayer, prog.layers.getAt(0));
        EXPECT_EQ(prog.layers.getAt(0)->editAll, 1);
        ASSERT_EQ(prog.layers.getAt(0)->sounds.count(), 1);
        const auto& s = static_cast<const COSCSound&>(*prog.layers.getAt(0)->sounds.getAt(0));
        EXPECT_EQ(s.name, CString("saw"));
        EXPECT_EQ(std::tie(s.mode, s.group, s.volume, s.pan, s.filter, s.cutoff, s.q, s.dist, s.coarse, s.fine),
                  std::make_tuple(modeMono, 4, 0.8f, -0.25f, filterHigh, 0.7f, 0.3f, 1, -12.0f, 0.5f));
        EXPECT_EQ(std::tie(s.glide, s.bendRange, s.sends[0], s.sends[1], s.mute, s.solo, s.keyLow, s.keyHigh, s.velLow,
                           s.velHigh),
                  std::make_tuple(250, 7, 0.125f, 0.375f, 1, 1, 24, 96, 10, 110));
        EXPECT_EQ(std::tie(s.feed1, s.detune, s.phase, s.width, s.feed2, s.phaseMod, s.coarse2, s.phase2, s.pmMul,
                           s.oscRing, s.modRing),
                  std::make_tuple(0.11f, 0.12f, 0.13f, 0.14f, 0.15f, 0.16f, -24.0f, 0.17f, 3, 0.18f, 0.19f));
        EXPECT_EQ(s.oscInv, expectedInv) << "stored " << oscInv;
        EXPECT_EQ(std::tie(s.vel.params[0].flag, s.vel.params[0].amount, s.vel.params[0].index, s.vel.params[1].index),
                  std::make_tuple(0, 0.5f, targetCutoff, targetPan));
        const CEnv& env = s.envelope[0];
        auto step = [](int k) { return 0.2f + 0.01f * static_cast<float>(k); };  // as envelope() writes them
        EXPECT_EQ(std::tie(s.envelope[1].initial, env.attack, env.ac, env.decay, env.dc, env.sustain, env.releaseTime,
                           env.rc, env.timeScale),
                  std::make_tuple(0.3f, step(1), step(2), step(3), step(4), step(5), step(6), step(7), 900));
        EXPECT_EQ(env.params[0].index, targetVolume) << "the first two envelopes keep their routing";
        EXPECT_EQ(std::tie(s.envelope[5].initial, s.envelope[5].timeScale, s.envelope[5].params[0].index,
                           s.envelope[5].params[0].amount),
                  std::make_tuple(0.7f, 1200, targetPhaseMod, 0.7f));
        const CLFO& lfo = s.lfo[2];
        EXPECT_EQ(std::tie(lfo.wave, lfo.rate, lfo.sync, lfo.mul, lfo.div, lfo.delay, lfo.inv, lfo.restart),
                  std::make_tuple(2, 3.5f, 1, 4, 3, 200, 0, restartMono));
        EXPECT_EQ(std::tie(s.lfo[3].params[0].amount, s.lfo[3].params[0].index, s.cp.params[0].amount, s.ccMap[7], s.ccMap[8]),
                  std::make_tuple(0.3f, targetDetune, 0.9f, targetVolume, 0));
        // The effects' own words are the effects' business: here each block's place, switch and levels.
        const auto& phaser = static_cast<const CPhaser&>(*s.fx[0]);
        EXPECT_EQ(std::tie(phaser.enabled, phaser.dry, phaser.wet, phaser.rate, phaser.rangeMax),
                  std::make_tuple(1, 0.4f, 0.6f, 0.2f, 9000.0f));
        const auto& chorus = static_cast<const CChorus&>(*s.fx[1]);
        EXPECT_EQ(std::tie(chorus.enabled, chorus.dry, chorus.delay, chorus.rate), std::make_tuple(0, 0.45f, 15.0f, 2.0f));
        const auto& reverb = static_cast<const CReverb&>(*prog.reverb());
        EXPECT_EQ(std::tie(reverb.enabled, reverb.wet), std::make_tuple(1, 0.9f));
        EXPECT_EQ(reverb.preDelay, 250) << "pre-delay is clamped";
        EXPECT_EQ(reverb.size, 3500) << "the later block decides the size";
        const auto& delay = static_cast<const CDelay&>(*prog.delay());
        EXPECT_EQ(std::tie(delay.enabled, delay.feedback, delay.divRight, delay.timeRight), std::make_tuple(1, 0.35f, 5, 240.0f));
        EXPECT_EQ(delay.bufL, sampler.delayL.get()) << "a loaded delay uses the sampler's memory";
    }
}

TEST(SamplerFile, ADamagedBlockIsReportedAndReadingGoesOnButANegativeSizeEndsIt) {
    prompts.clear();
    setLoadErrorPrompt(capturePrompt);
    Rig rig;
    SamplerBytes damaged;
    damaged.block("prog", {}).block("layer", {});
    damaged.block("sound", Bytes().u8(soundOscillator).text("cut").u8(0).data);  // ends inside the fields
    damaged.block("mch", Bytes().i32(2).data).block("progid", Bytes().text("Survivor").data);
    loadBytes(*rig.sampler, damaged.data);
    setLoadErrorPrompt(nullptr);
    ASSERT_EQ(prompts.size(), 1u);
    EXPECT_EQ(prompts[0], "Error reading Synthesizer|Error reading block: sound (9)");
    EXPECT_EQ(rig.sampler->mch, 2);
    CSynthProg& prog = *rig.sampler->currentProgram();
    EXPECT_EQ(prog.name, CString("Survivor"));
    ASSERT_EQ(prog.layers.getAt(0)->sounds.count(), 1) << "what the block held is kept";
    EXPECT_EQ(prog.layers.getAt(0)->sounds.getAt(0)->name, CString("cut"));

    Rig other;
    SamplerBytes negative;
    negative.block("mch", Bytes().i32(4).data).header("junk", 0x80000000u).block("mch", Bytes().i32(6).data);
    loadBytes(*other.sampler, negative.data);
    EXPECT_EQ(other.sampler->mch, 4);
    EXPECT_EQ(other.sampler->programs.count(), 1) << "a sampler never stays without a program";
}

TEST(SamplerFile, DamagedStreamsLoadWhatTheyCanAndStillPlay) {
    Rig rig;
    enrich(*rig.sampler);
    const std::vector<uint8_t> good = saved(*rig.sampler);
    setLoadErrorPrompt([](const CString&, const CString&) {});
    Rig player;
    for (size_t length = 0; length < good.size(); length += 13) {
        SCOPED_TRACE(length);
        loadAndPlay(player, std::vector<uint8_t>(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)));
    }
    std::mt19937 random(2024);
    for (int32_t round = 0; round < 400; ++round) {
        SCOPED_TRACE(round);
        std::vector<uint8_t> bytes = good;
        if (round < 300) {
            for (uint32_t flips = 1 + random() % 8; flips > 0; --flips)
                bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
        } else {
            bytes.resize(random() % 3000);
            for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
        }
        loadAndPlay(player, bytes);
    }
    setLoadErrorPrompt(nullptr);

    // A stream cut behind the first program's blocks still gives that program whole.
    const std::string text(good.begin(), good.end());
    const auto firstProgramEnd = static_cast<std::ptrdiff_t>(text.find("prog", text.find("layeri")));
    loadBytes(*player.sampler, std::vector<uint8_t>(good.begin(), good.begin() + firstProgramEnd));
    ASSERT_EQ(player.sampler->programs.count(), 1);
    EXPECT_EQ(player.sampler->getProgramName(0), CString("program 0"));
    EXPECT_EQ(static_cast<CSynthProg*>(player.sampler->programs.getAt(0))->layers.count(), 2);

    // A sound of a kind nothing here makes (9), behind the last oscillator sound, is skipped with its
    // modulation block: none of it lands on the sound before.
    SamplerBytes unknown;
    unknown.data = good;
    unknown.block("sound", Bytes().u8(9).text("drum").zeros(200).data).block("soundmod", std::vector<uint8_t>(840, 0xFF));
    loadBytes(*player.sampler, unknown.data);
    EXPECT_EQ(saved(*player.sampler), good);
}
