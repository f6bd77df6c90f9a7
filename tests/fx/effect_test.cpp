#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include "core/stream.h"
#include "engine/eq.h"
#include "fx/effect.h"
#include "fx/effects.h"
#include "fx/reverb.h"
#include "support/bytes.h"
#include "support/engine_graph.h"
#include "support/rt_probe.h"

namespace {

using namespace bytestest;

constexpr int32_t frames = 256;

// Overwrites its output with gain * input + offset, like every kind but the delay and the reverb.
class Affine : public CFX {
public:
    Affine(float gain, float offset, bool on = true) : gain(gain), offset(offset) { enabled = on; }
    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t n) override {
        for (int32_t i = 0; i < n; ++i) {
            outL[i] = gain * inL[i] + offset;
            outR[i] = gain * inR[i] + offset;
        }
        seenTempo = tempo;
    }
    float gain, offset, seenTempo = 0.0f;
};

// Adds its dry term into its output, as the delay and the reverb do.
class Adder : public CFX {
public:
    Adder() { enabled = 1; }
    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t n) override {
        for (int32_t i = 0; i < n; ++i) {
            outL[i] += dry * inL[i];
            outR[i] += dry * inR[i];
        }
    }
};

// A kind outside the known table, registered only here, whose saved words are its whole state.
constexpr int32_t storedKind = 12;

class Stored : public CFX {
public:
    Stored() : CFX(storedKind) {}
    void setBlockSize(int32_t n) override { blockSize = n; }
    void saveWords(FXWords& out) const override { out = words; }
    void loadWords(const FXWords& in) override { words = in; }
    FXWords words;
    int32_t blockSize = 0;
};

float inputLeft(int32_t i) { return 0.5f * std::sin(0.05f * static_cast<float>(i)); }
float inputRight(int32_t i) { return 0.25f * std::cos(0.031f * static_cast<float>(i)) - 0.1f; }
float same(float x) { return x; }
float twice(float x) { return 2.0f * x; }
float silent(float) { return 0.0f; }

struct ParamEvent {
    double frame;
    int32_t param;
    float value;
    bool toEffect = true;  // else aimed at the effect's output channel
};

// One "Multi Effect" outside any graph: each cycle writes the input channel and the events, then runs
// process the way a pull does.
struct Rig {
    CQV engine{EngineOptions{false, 1}};
    CEffect effect{&engine};

    Rig() {
        registerFXKind(storedKind, []() -> CFX* { return new Stored; });
        engine.setBlockSize(frames);
        effect.createPorts();
        effect.setBlockSize(frames);
    }
    CEffectProg& prog() { return *effect.effectProgram(0); }
    void cycle(const std::vector<ParamEvent>& events = {}) {
        effect.beginCycle(frames);
        CInputChannel* in = effect.firstInputChannel();
        for (int32_t i = 0; i < frames; ++i) {
            in->left()[i] = inputLeft(i);
            in->right()[i] = inputRight(i);
        }
        for (const ParamEvent& e : events) {
            void* target = e.toEffect ? static_cast<void*>(static_cast<CComp*>(&effect)) : effect.firstOutputChannel();
            effect.firstInputPort()->addEvent(e.frame, 0, EventType::param, e.value, e.param, target);
        }
        effect.process(frames);
    }
    // The output against f(input), sample by sample, over frames [from, to).
    void expectOutput(const std::function<float(float)>& f, int32_t from = 0, int32_t to = frames) {
        const COutputChannel* out = effect.firstOutputChannel();
        for (int32_t i = from; i < to; ++i) {
            ASSERT_FLOAT_EQ(out->left()[i], f(inputLeft(i))) << "left, frame " << i;
            ASSERT_FLOAT_EQ(out->right()[i], f(inputRight(i))) << "right, frame " << i;
        }
    }
};

// The effect's blocks, built by hand to hold against what the component writes.
struct FileBytes : BasicBytes<FileBytes> {
    FileBytes& prog(const char* name) { return header("prog", static_cast<uint32_t>(std::strlen(name)) + 36).text(name).zeros(32); }
    FileBytes& fx(int32_t kind, int32_t enabled, float dry, float wet, const uint32_t (&words)[16]) {
        header("fx", 80).i32(kind).i32(enabled).f32(dry).f32(wet);
        for (uint32_t w : words) u32(w);
        return *this;
    }
};

}  // namespace

TEST(EffectChain, RendersEnabledEffectsInOrderThroughTheScratch) {
    struct Row {
        const char* what;
        std::vector<std::function<CFX*()>> effects;
        std::function<float(float)> expect;
    } const rows[] = {
        {"only disabled effects copy the input",
         {[] { return new Affine(2.0f, 0.0f, false); }, [] { return new Affine(-3.0f, 1.0f, false); }}, same},
        {"the second works on what the first made",
         {[] { return new Affine(2.0f, 0.0f); }, [] { return new Affine(1.0f, 0.25f); }}, [](float x) { return 2.0f * x + 0.25f; }},
        {"a disabled effect in between is skipped",
         {[] { return new Affine(2.0f, 0.0f); }, [] { return new Affine(10.0f, 3.0f, false); }, [] { return new Affine(-1.0f, 0.0f); }},
         [](float x) { return -2.0f * x; }},
        {"a disabled first effect lets the next one read the input",
         {[] { return new Affine(10.0f, 3.0f, false); }, [] { return new Affine(2.0f, 0.0f); }}, twice},
        {"an adding effect first finds the scratch cleared", {[] { return new Adder; }}, same},
        {"an adding effect second hears its input twice",
         {[] { return new Affine(2.0f, 0.0f); }, [] { return new Adder; }}, [](float x) { return 4.0f * x; }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Rig rig;
        for (const auto& make : row.effects) rig.prog().effects.add(make());
        // Twice, so that anything the first cycle left in the scratch would show in the second.
        rig.cycle();
        rig.cycle();
        rig.expectOutput(row.expect);
    }
}

TEST(EffectChain, PowerOffPassesTheInputAndAMissingProgramIsSilent) {
    Rig rig;
    auto* fx = new Affine(2.0f, 0.0f);
    rig.prog().effects.add(fx);
    rig.engine.bpm.store(97.5f);
    rig.cycle();
    rig.expectOutput(twice);
    EXPECT_EQ(fx->seenTempo, 97.5f) << "effects run at the engine's tempo";
    rig.effect.setParam(paramPower, 0.0f);
    rig.cycle();
    rig.expectOutput(same);
    rig.effect.setParam(paramPower, 1.0f);
    rig.effect.program = 3;
    rig.cycle();
    rig.expectOutput(silent);
}

TEST(EffectChain, ProcessesInsideTheGraph) {
    CQV engine(EngineOptions{false, 1});
    engine.setBlockSize(frames);
    auto* out = testgraph::add<CAudioOut>(engine);
    auto* source = testgraph::add<testgraph::Source>(engine, 2);
    auto* effect = testgraph::add<CEffect>(engine);
    effect->effectProgram(0)->effects.add(new Affine(-2.0f, 0.0f));
    testgraph::connectAudio(*source, *effect);
    testgraph::connectAudio(*effect, *out);
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_TRUE(engine.runCycle(frames));
        const COutputChannel *heard = out->firstOutputChannel(), *made = source->firstOutputChannel();
        for (int32_t i = 0; i < frames; ++i) {
            ASSERT_EQ(heard->left()[i], -2.0f * made->left()[i]) << i;
            ASSERT_EQ(heard->right()[i], -2.0f * made->right()[i]) << i;
        }
    }
}

TEST(EffectParams, EventsTakeEffectAtTheRoundedFrame) {
    struct Row {
        const char* what;
        std::vector<ParamEvent> events;
        int32_t offFrom, offTo;  // frames that pass the input unchanged
        float wet;
    } const rows[] = {
        {"power off rounds 100.4 down", {{100.4, paramPower, 0.0f}}, 100, frames, 1.0f},
        {"99.5 rounds up to 100", {{99.5, paramPower, 0.0f}}, 100, frames, 1.0f},
        {"0.4 rounds to off", {{10.0, paramPower, 0.4f}}, 10, frames, 1.0f},
        {"0.6 rounds to on", {{10.0, paramPower, 0.6f}}, 0, 0, 1.0f},
        {"off, then on again", {{50.0, paramPower, 0.0f}, {120.0, paramPower, 1.0f}}, 50, 120, 1.0f},
        {"aimed at the channel, not the component", {{30.0, paramPower, 0.0f, false}}, 0, 0, 1.0f},
        {"wet level above 1 clamps", {{10.0, paramWetLevel, 1.7f}}, 0, 0, 1.0f},
        {"wet level below 0 clamps", {{10.0, paramWetLevel, -0.3f}}, 0, 0, 0.0f},
        {"the last wet level wins", {{10.0, paramWetLevel, 0.1f}, {20.0, paramWetLevel, 0.25f}}, 0, 0, 0.25f},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Rig rig;
        rig.prog().effects.add(new Affine(2.0f, 0.0f));
        rig.cycle(row.events);
        rig.expectOutput(twice, 0, row.offFrom);
        rig.expectOutput(same, row.offFrom, row.offTo);
        rig.expectOutput(twice, std::max(row.offFrom, row.offTo), frames);
        EXPECT_EQ(rig.effect.wetLevel.load(), row.wet);
    }
}

TEST(EffectParams, DisplaysShowPowerAndTheWetLevelInWholePercent) {
    Rig rig;
    for (const auto& [index, value, display] :
         {std::tuple{paramPower, 0.3f, "On"}, std::tuple{paramPower, 0.0f, "Off"}, std::tuple{paramWetLevel, 0.125f, "13%"},
          std::tuple{paramWetLevel, 0.994f, "99%"}, std::tuple{paramWetLevel, 0.995f, "100%"},
          std::tuple{paramWetLevel, 1.5f, "100%"}, std::tuple{paramWetLevel, -0.2f, "0%"}}) {
        rig.effect.setParam(index, value);
        EXPECT_STREQ(rig.effect.getParamDisplay(index).c_str(), display) << index << " " << value;
    }
}

// The reverb's size follows its own block, and only that one.
TEST(EffectFile, SaveWritesTheDocumentedBlocks) {
    registerEffects();
    Rig rig;
    rig.prog().setName("Lead");
    auto* fx = new Stored;
    fx->enabled = 1;
    fx->dry = 0.5f;
    fx->wet = 0.75f;
    uint32_t words[16], reverbWords[16] = {20, std::bit_cast<uint32_t>(2600.0f)};
    for (int32_t k = 0; k < 16; ++k) fx->words.word[k] = words[k] = 100 + k;
    auto* reverb = static_cast<CReverb*>(createFX(fxReverb));
    reverb->setSizeMs(2600);
    rig.prog().effects.add(reverb);
    rig.prog().effects.add(fx);
    rig.effect.programs.add(new CEffectProg);
    rig.effect.program = 1;
    FileBytes expect;
    expect.header("progi", 4).i32(1).prog("Lead").fx(fxReverb, 0, 1.0f, 0.2f, reverbWords).header("reverbSize", 4).i32(2600)
        .fx(storedKind, 1, 0.5f, 0.75f, words).prog("effect");
    EXPECT_EQ(saved(rig.effect), expect.data);
}

TEST(EffectFile, EveryKindLoadsBackAndCopiesToIdenticalBytes) {
    registerEffects();
    Rig rig;
    rig.effect.programs.add(new CEffectProg);
    rig.effect.program = 1;
    for (int32_t kind = fxDelay; kind <= fxCompressor; ++kind) {
        CFX* fx = createFX(kind);
        ASSERT_EQ(fx->subKind, kind);
        fx->setEnabled(kind % 2 == 0);
        fx->dry = 0.25f * static_cast<float>(kind);
        rig.effect.effectProgram(1)->effects.add(fx);
    }
    auto* stored = new Stored;
    for (int32_t k = 0; k < 16; ++k) stored->words.setF32(k, static_cast<float>(k) / 7.0f);
    rig.prog().effects.add(stored);

    const std::vector<uint8_t> first = saved(rig.effect);
    CEffect loaded(&rig.engine);
    loadBytes(loaded, first);
    ASSERT_EQ(loaded.getProgramCount(), 2);
    EXPECT_EQ(loaded.program, 1);
    EXPECT_EQ(static_cast<Stored*>(loaded.effectProgram(0)->effects.getAt(0))->blockSize, frames)
        << "a loaded effect gets the engine's block size";
    EXPECT_EQ(saved(loaded), first);

    // A copy is deep, saves the same and keeps what the blocks don't hold.
    rig.effect.setParam(paramWetLevel, 0.4f);
    rig.effect.setParam(paramPower, 0.0f);
    rig.effect.name = "Rack";
    std::unique_ptr<CComp> copy(rig.effect.copy());
    auto* twin = dynamic_cast<CEffect*>(copy.get());
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(saved(*twin), first);
    EXPECT_STREQ(twin->getName().c_str(), "Rack");
    EXPECT_EQ(std::tuple(twin->wetLevel.load(), twin->power.load(),
                         twin->inputChannels.count() + twin->outputChannels.count() + twin->inputPorts.count()),
              std::tuple(0.4f, 0, 3));
    EXPECT_NE(twin->effectProgram(0)->effects.getAt(0), stored);
}

TEST(EffectFile, UnknownKindsAndBlocksAreSkippedByTheirSize) {
    uint32_t junk[16], counted[16];
    for (uint32_t k = 0; k < 16; ++k) {
        junk[k] = 0xDEADBEEF;
        counted[k] = k + 1;
    }
    FileBytes file;
    file.fx(storedKind, 1, 1.0f, 1.0f, counted)  // before any program: nowhere to go
        .prog("p").fx(99, 1, 0.5f, 0.25f, junk).header("someday", 3).u8(1).u8(2).u8(3)
        .fx(storedKind, 0, 1.0f, 2.0f, counted);
    Rig rig;
    loadBytes(rig.effect, file.data);
    ASSERT_EQ(rig.effect.getProgramCount(), 2) << "the program createPorts made stays: load deletes nothing";
    const TList<CFX>& effects = rig.effect.effectProgram(1)->effects;
    ASSERT_EQ(effects.count(), 2);
    EXPECT_EQ(std::pair(effects.getAt(0)->subKind, effects.getAt(0)->dry), std::pair(int32_t{fxUnknown}, 0.5f));
    const auto* next = static_cast<const Stored*>(effects.getAt(1));
    ASSERT_EQ(next->subKind, storedKind);
    EXPECT_EQ(next->wet, 2.0f);
    for (int32_t k = 0; k < 16; ++k) EXPECT_EQ(next->words.word[k], counted[k]) << k;

    // The unknown effect processes nothing: as the one enabled effect it leaves the scratch silent.
    rig.effect.program = 1;
    rig.cycle();
    rig.expectOutput(silent);
}

TEST(EffectFile, ReverbSizeLoadsFromItsOwnBlockOrElseInWholeSeconds) {
    registerEffects();
    const uint32_t words[16] = {30, std::bit_cast<uint32_t>(2600.0f)};
    for (bool withSizeBlock : {true, false}) {
        FileBytes file;
        file.prog("p").fx(fxReverb, 1, 1.0f, 0.5f, words);
        if (withSizeBlock) file.header("reverbSize", 4).i32(2600);
        Rig rig;
        loadBytes(rig.effect, file.data);
        const auto* reverb = dynamic_cast<const CReverb*>(rig.effect.effectProgram(1)->effects.getAt(0));
        ASSERT_NE(reverb, nullptr);
        // Without the block the float word counts in whole seconds.
        EXPECT_EQ(reverb->size, withSizeBlock ? 2600 : 2000);
        EXPECT_EQ(reverb->preDelay, 30);
    }
}

// The rigs above build the component directly; this is how a project or the user gets one.
TEST(EffectComponent, FactoryMakesAStereoMultiEffectAndUnknownKindsStandIn) {
    registerEffects();
    CQV engine(EngineOptions{false, 1});
    std::unique_ptr<CComp> comp(createComp(&engine, compEffect));
    auto* effect = dynamic_cast<CEffect*>(comp.get());
    ASSERT_NE(effect, nullptr);
    EXPECT_STREQ(effect->getName().c_str(), "Multi Effect");
    effect->createPorts();
    EXPECT_EQ(std::tuple(effect->inputPorts.count(), effect->outputPorts.count(), effect->firstInputChannel()->channels,
                         effect->firstOutputChannel()->channels),
              std::tuple(1, 0, 2, 2));
    EXPECT_EQ(std::unique_ptr<CFX>(createFX(13))->subKind, fxUnknown) << "a kind in range that nothing registered";
}

TEST(EffectRealTime, ProcessAllocatesNothing) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    Rig rig;
    rig.prog().effects.add(new Affine(2.0f, 0.0f));
    rig.prog().effects.add(new Adder);
    auto* eq = new CEQ(eqPeak, 1000.0f);
    eq->enabled = 1;
    rig.prog().effects.add(eq);
    const std::vector<ParamEvent> events = {{40.0, paramPower, 0.0f}, {41.0, paramPower, 1.0f}, {90.0, paramWetLevel, 0.5f}};
    rig.cycle(events);
    rtprobe::Scope probe;
    for (int cycle = 0; cycle < 1000; ++cycle) rig.cycle(events);
    EXPECT_EQ(probe.allocations(), 0);
}
