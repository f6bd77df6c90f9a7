#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/stream.h"
#include "engine/strip_io.h"
#include "support/bytes.h"
#include "support/compare.h"
#include "support/engine_graph.h"

using namespace comparetest;
using namespace testgraph;

namespace {

constexpr double rate = 48000.0;
constexpr int32_t ramp = COutputChannel::rampFrames;

EngineOptions singleThread() { return EngineOptions{false, 1}; }

// What a Source of seed 0 plays at an absolute frame, on each side.
float wave(int64_t frame, int side) {
    const double t = static_cast<double>(frame);
    return static_cast<float>(side == 0 ? std::sin(t * 0.01) * 0.5 : std::cos(t * 0.013) * 0.5);
}

CGroupCh* addGroup(CQV& engine, CAudioOut* out) {
    auto* group = new CGroupCh(&engine);
    group->createPorts();
    engine.addGroupChannel(group);
    if (out) connectAudio(*group, *out);
    return group;
}

Stage* newInsert(CQV& engine, float gain, int32_t latency = 0) {
    auto* insert = new Stage(&engine, gain, latency);
    insert->createPorts();
    insert->setBlockSize(engine.blockSize);
    return insert;
}

struct Rig {
    Rig(int32_t block, int32_t groupCount) : engine(singleThread()) {
        engine.setBlockSize(block);
        engine.setSampleRate(rate);
        out = add<CAudioOut>(engine);
        for (int32_t k = 0; k < groupCount; ++k) groups.push_back(addGroup(engine, out));
    }
    Source* player() {
        auto* p = add<Source>(engine, 0);
        connectAudio(*p, *out);
        return p;
    }
    CQV engine;
    CAudioOut* out;
    std::vector<CGroupCh*> groups;
};

struct Change {
    int64_t frame;
    int32_t param;
    float value;
};

struct Captured {
    std::vector<float> left, right;
};

// Runs whole cycles of `block` frames, putting each change into the player's port in the cycle where it
// falls, and keeps what the player's strip made of each frame.
Captured play(Rig& rig, Source& player, int32_t block, int64_t total, const std::vector<Change>& changes) {
    Captured result;
    COutputChannel* channel = player.firstOutputChannel();
    for (int64_t start = 0; start < total; start += block) {
        rig.engine.beginCycle(block);
        for (const Change& c : changes)
            if (c.frame >= start && c.frame < start + block)
                player.firstInputPort()->addEvent(static_cast<double>(c.frame - start), 0, EventType::param, c.value,
                                                  c.param, channel);
        rig.engine.process(block);
        result.left.insert(result.left.end(), channel->left(), channel->left() + block);
        result.right.insert(result.right.end(), channel->right(), channel->right() + block);
    }
    result.left.resize(static_cast<size_t>(total));
    result.right.resize(static_cast<size_t>(total));
    return result;
}

// The pan law, written out apart from the strip's own.
struct Pan {
    float left, right;
};
Pan panGains(float p) { return p >= 0.0f ? Pan{1.0f - p, 1.0f + p / 2.0f} : Pan{1.0f - p / 2.0f, 1.0f + p}; }

// A ramp as the strip describes it: 132 frames from the gain in force when it starts, in equal steps.
struct RefRamp {
    float from, to, step = 0.0f;
    int64_t start = 0;
    float at(int64_t frame) const { return frame - start >= ramp ? to : from + static_cast<float>(frame - start) * step; }
    void retarget(int64_t frame, float target) {
        from = at(frame);
        to = target;
        start = frame;
        step = (target - from) / static_cast<float>(ramp);
    }
};

}  // namespace

TEST(Fader, RampedSquareLawIsExactAtEveryBlockSize) {
    // Down to 0.5, back up mid-ramp, pan left while the fader moves, then right, then mute: the output must
    // not depend on how the blocks cut the ramps.
    constexpr int64_t total = 2048;
    const std::vector<Change> changes = {
        {100, stripparam::volume, 0.5f}, {150, stripparam::volume, 0.8f}, {600, stripparam::pan, 0.25f},
        {650, stripparam::volume, 0.3f}, {900, stripparam::pan, 0.9f},   {1200, stripparam::mute, 1.0f},
        {1500, stripparam::mute, 0.0f},
    };
    RefRamp gain{1.0f, 1.0f}, left{1.0f, 1.0f}, right{1.0f, 1.0f};
    float volume = 1.0f;
    bool muted = false;
    Captured expected;
    for (int64_t f = 0; f < total; ++f) {
        for (const Change& c : changes) {
            if (c.frame != f) continue;
            if (c.param == stripparam::pan) {
                left.retarget(f, panGains(2.0f * c.value - 1.0f).left);
                right.retarget(f, panGains(2.0f * c.value - 1.0f).right);
                continue;
            }
            if (c.param == stripparam::volume) volume = c.value;
            else muted = c.value > 0.5f;
            gain.retarget(f, muted ? 0.0f : volume);
        }
        const float g = gain.at(f);
        expected.left.push_back(left.at(f) * wave(f, 0) * g * g);
        expected.right.push_back(right.at(f) * wave(f, 1) * g * g);
    }

    std::vector<Captured> runs;
    for (int32_t block : {1, 7, 64, 1024}) {
        Rig rig(block, 0);
        runs.push_back(play(rig, *rig.player(), block, total, changes));
        const Captured& got = runs.back();
        for (int64_t f = 0; f < total; ++f) {
            ASSERT_NEAR(got.left[f], expected.left[f], 1e-6f) << "block " << block << " frame " << f;
            ASSERT_NEAR(got.right[f], expected.right[f], 1e-6f) << "block " << block << " frame " << f;
        }
        EXPECT_EQ(firstDifference(got.left, runs.front().left), noDifference) << "block " << block;
        EXPECT_EQ(firstDifference(got.right, runs.front().right), noDifference) << "block " << block;
    }
    // A ramp lands on its target exactly, not a rounding away: 0.8 squared from 150 + 132 on, mute at 0.
    EXPECT_EQ(runs.front().left[150 + ramp], 0.8f * wave(150 + ramp, 0) * 0.8f);
    EXPECT_EQ(runs.front().left[1200 + ramp], 0.0f);
}

TEST(Strip, SoloSilencesEveryStripButGroupsAndOutputs) {
    // A and B feed the output; A also sends at unity to a group, which feeds the output.
    struct Row {
        bool soloA, soloB;
        float gainA, gainB;
    };
    constexpr int32_t block = 256;
    for (const Row& row : {Row{false, true, 0, 1}, Row{true, true, 1, 1}}) {
        Rig rig(block, 1);
        Source* a = rig.player();
        Source* b = rig.player();
        a->firstOutputChannel()->sends[0]->level = 1.0f;
        a->firstOutputChannel()->solo = row.soloA;
        b->firstOutputChannel()->solo = row.soloB;
        for (int cycle = 0; cycle < 2; ++cycle) rig.engine.runCycle(block);  // past the ramps

        for (int32_t i = 0; i < block; ++i) {
            const float fromA = row.gainA * wave(block + i, 0);
            const float fromB = row.gainB * wave(block + i, 0);
            ASSERT_EQ(a->firstOutputChannel()->left()[i], fromA) << i;
            ASSERT_EQ(b->firstOutputChannel()->left()[i], fromB) << i;
            ASSERT_EQ(rig.groups[0]->firstOutputChannel()->left()[i], fromA) << "the group keeps its level; " << i;
            ASSERT_EQ(rig.out->firstOutputChannel()->left()[i], fromA + fromB + fromA) << "the output too; " << i;
        }
    }
}

TEST(Sends, LevelSquaredOfThePostFaderSignalReachesItsGroup) {
    struct Row {
        int32_t send;
        float level, volume, pan, outLevel;
        bool disabled;
    };
    const Row rows[] = {{0, 0.5f, 0.5f, 0.0f, 1.0f, false}, {1, 0.7f, 0.9f, -1.0f, 0.5f, false}, {0, 1.0f, 1.0f, 0.0f, 1.0f, true}};
    constexpr int32_t block = 128;
    for (const Row& row : rows) {
        Rig rig(block, 2);
        COutputChannel* channel = rig.player()->firstOutputChannel();
        channel->volume = row.volume;
        channel->pan = row.pan;
        channel->outLevel = row.outLevel;
        channel->snapRamps();
        channel->sends[row.send]->level = row.level;
        channel->sends[row.send]->disabled = row.disabled;
        rig.engine.runCycle(block);

        const float s = row.disabled ? 0.0f : row.level * row.level;
        for (int32_t i = 0; i < block; ++i) {
            const float postFader = panGains(row.pan).left * wave(i, 0) * row.volume * row.volume;
            for (int32_t k = 0; k < 2; ++k)
                ASSERT_FLOAT_EQ(rig.groups[k]->firstOutputChannel()->left()[i], k == row.send ? s * postFader : 0.0f)
                    << "group " << k << " frame " << i;
            ASSERT_FLOAT_EQ(channel->left()[i], postFader * row.outLevel) << "the output level comes after the sends";
        }
    }
}

TEST(Sends, MuteStopsThemAtOnceWhileTheFaderRamps) {
    constexpr int32_t block = 256;
    constexpr int32_t muteAt = 40;
    for (int32_t sendDelay : {0, 13}) {
        Rig rig(block, 1);
        Source* player = rig.player();
        COutputChannel* channel = player->firstOutputChannel();
        channel->sends[0]->level = 1.0f;
        channel->sendDelay = sendDelay;
        const Captured first = play(rig, *player, block, block, {});
        const Captured second = play(rig, *player, block, block, {{muteAt, stripparam::mute, 1.0f}});

        const float* group = rig.groups[0]->firstOutputChannel()->left();
        for (int32_t i = 0; i < block; ++i) {
            const int64_t sent = block + i - sendDelay;
            const float before = sent < block ? first.left[sent] : second.left[sent - block];
            const float expected = i < muteAt ? before : 0.0f;
            ASSERT_EQ(group[i], expected) << "delay " << sendDelay << " frame " << i;
        }
        EXPECT_EQ(second.left[muteAt], wave(block + muteAt, 0)) << "the fader starts its ramp at the mute";
        EXPECT_NE(second.left[muteAt + ramp - 1], 0.0f);
        EXPECT_EQ(second.left[muteAt + ramp], 0.0f);

        // A muted strip meters silence.
        channel->peakLeft = 0.0f;
        play(rig, *player, block, block, {});
        EXPECT_EQ(channel->peakLeft.load(), 0.0f);
        for (int32_t i = 0; i < block; ++i) ASSERT_EQ(group[i], 0.0f);
    }
}

TEST(Inserts, RunAfterTrimAndEQAndMixByTheirWetLevel) {
    struct Row {
        float wet, trim;
        bool eqOn;
    };
    constexpr int32_t block = 128;
    constexpr float shape = 3.0f;
    for (const Row& row : {Row{0.0f, 0.0f, false}, Row{0.25f, 1.0f, false}, Row{1.0f, -0.5f, true}}) {
        Rig rig(block, 0);
        COutputChannel* channel = rig.player()->firstOutputChannel();
        Stage* insert = newInsert(rig.engine, shape);
        insert->wetLevel = row.wet;
        channel->inserts.add(insert);
        channel->trim = row.trim;
        CEQ reference(eqPeak, 2000.0f);
        reference.setSampleRate(static_cast<float>(rate));
        if (row.eqOn) {
            channel->setParam(stripparam::firstEQ + 4, 1.0f);   // EQ3 power
            channel->setParam(stripparam::firstEQ + 5, 0.75f);  // EQ3 gain +12 dB
            reference.gain = 12.0f;
            reference.update();
        }
        rig.engine.runCycle(block);

        std::vector<float> in(block), unused(block);
        for (int32_t i = 0; i < block; ++i)
            in[i] = row.trim != 0.0f ? wave(i, 0) * std::pow(4.0f, row.trim) : wave(i, 0);
        if (row.eqOn) reference.process(in.data(), in.data(), in.data(), unused.data(), block);
        float peak = 0.0f;
        for (int32_t i = 0; i < block; ++i) {
            const float wetOut = std::tanh(shape * in[i]);
            const float expected = row.wet < 1.0f ? (1.0f - row.wet) * in[i] + row.wet * wetOut : wetOut;
            peak = std::max(peak, std::fabs(expected));
            ASSERT_NEAR(channel->left()[i], expected, 1e-6f) << "wet " << row.wet << " frame " << i;
            if (row.wet == 0.0f) {
                ASSERT_EQ(channel->left()[i], wave(i, 0)) << "dry passes unchanged";
            }
        }
        EXPECT_EQ(insert->runs, 1) << "the insert runs even when dry";
        EXPECT_NEAR(insert->firstOutputChannel()->holdLeft.load(), peak, 1e-6f);
    }
}

TEST(Strip, ExclusiveRenderOfEveryChannelOnlyMeters) {
    constexpr int32_t block = 64;
    Rig rig(block, 0);
    Source* player = rig.player();
    COutputChannel* channel = player->firstOutputChannel();
    channel->volume = 0.5f;
    channel->pan = -1.0f;
    rig.engine.renderAll = true;
    rig.engine.exclusive = 1;
    player->beginCycle(block);
    player->process(block);
    player->processInserts(block);
    player->processStrip(block);
    float peak = 0.0f;
    for (int32_t i = 0; i < block; ++i) {
        ASSERT_EQ(channel->right()[i], wave(i, 1));
        peak = std::max(peak, std::fabs(wave(i, 0)));
    }
    EXPECT_EQ(channel->holdLeft.load(), peak);
}

TEST(Strip, ParameterTableMapsEventValues) {
    struct Row {
        int32_t index;
        float value;
        const char* name;
        float (*read)(const COutputChannel&);
        float expected;
        const char* display;
    };
    const Row rows[] = {
        {0, 0.5f, "Volume", [](const COutputChannel& c) { return c.volume.load(); }, 0.5f, "-12.04 dB"},
        {2, 0.6f, "Mute", [](const COutputChannel& c) { return float(c.mute.load()); }, 1.0f, "on"},
        {8, 0.75f, "EQ3 gain", [](const COutputChannel& c) { return c.eqSettings[1].gain.load(); }, 12.0f, "12.0 dB"},
        {13, 2.0f, "EQ2 freq", [](const COutputChannel& c) { return c.eqSettings[2].freq.load(); }, 20000.0f, "20000 Hz"},
        {17, 0.0f, "EQ1 freq", [](const COutputChannel& c) { return c.eqSettings[3].freq.load(); }, 20.0f, "20 Hz"},
        {18, 1.0f, "EQ1 Q", [](const COutputChannel& c) { return c.eqSettings[3].Q.load(); }, 12.0f, "12.00"},
        {18, -1.0f, "EQ1 Q", [](const COutputChannel& c) { return c.eqSettings[3].Q.load(); }, 0.1f, "0.10"},
        {19, 1.0f, "Solo", [](const COutputChannel& c) { return float(c.solo.load()); }, 1.0f, "on"},
    };
    for (const Row& row : rows) {
        COutputChannel channel(nullptr);
        channel.setParam(row.index, row.value);
        EXPECT_FLOAT_EQ(row.read(channel), row.expected) << row.name;
        EXPECT_STREQ(COutputChannel::getParamName(row.index).c_str(), row.name);
        EXPECT_STREQ(channel.getParamDisplay(row.index).c_str(), row.display) << row.name;
    }
}

TEST(Strip, AnEQEventTakesEffectAtOnceAndAGuiChangeByTheNextCycle) {
    constexpr int32_t block = 64;
    Rig rig(block, 0);
    Source* player = rig.player();
    COutputChannel* channel = player->firstOutputChannel();
    auto coefficients = [](const CEQ& eq) { return std::vector<float>{eq.b0, eq.b1, eq.b2, eq.a1, eq.a2}; };
    CEQ expected(eqHighShelf, 10000.0f);
    expected.setSampleRate(static_cast<float>(rate));
    expected.gain = -12.0f;
    expected.update();

    play(rig, *player, block, block, {{10, stripparam::firstEQ + 1, 0.25f}});  // EQ4 gain -12 dB
    EXPECT_EQ(coefficients(channel->eq[0]), coefficients(expected));
    EXPECT_NE(channel->eqTime.load(), 0u);

    channel->setParam(stripparam::firstEQ + 1, 0.75f);  // as the GUI: +12 dB
    expected.gain = 12.0f;
    expected.update();
    EXPECT_NE(coefficients(channel->eq[0]), coefficients(expected)) << "the filter belongs to the audio side";
    rig.engine.runCycle(block);
    EXPECT_EQ(coefficients(channel->eq[0]), coefficients(expected));
}

namespace {

// Stands in for the project format: an "insert2" holding the shaper's gain, then its channel blocks.
void writeShaper(const CComp& insert, CStream& stream) {
    const int32_t at = beginBlock(stream, "insert2");
    stream.writeF32(static_cast<const Stage&>(insert).gain);
    stream.closeBlock(at);
    saveChannels(insert, stream);
}

CComp* readShaper(CQV* engine, CStream& stream, int32_t /*end*/) {
    float gain = 0.0f;
    stream.readF32(gain);
    return new Stage(engine, gain);
}

constexpr InsertBlockIO shaperIO{writeShaper, readShaper};

std::vector<uint8_t> saved(const CComp& comp) {
    CMemoryStream stream;
    saveChannels(comp, stream, shaperIO);
    return bytestest::bytesOf(stream);
}

std::vector<std::string> tagsOf(const std::vector<uint8_t>& bytes) {
    CMemoryStream stream;
    bytestest::fill(stream, bytes);
    std::vector<std::string> tags;
    CBlockReader blocks(stream, stream.getSize());
    while (blocks.next()) {
        tags.push_back(blocks.tag().c_str());
        blocks.skip();
    }
    return tags;
}

void load(CComp& comp, const std::vector<uint8_t>& bytes) {
    CMemoryStream stream;
    bytestest::fill(stream, bytes);
    CChannelReader reader(comp, shaperIO);
    CBlockReader blocks(stream, stream.getSize());
    while (blocks.next())
        if (!reader.take(blocks, stream)) blocks.skip();
}

}  // namespace

TEST(StripBlocks, StripTwoLaysItsFieldsOutAndSaveLoadSaveGivesIdenticalBytes) {
    CQV engine(singleThread());
    for (int k = 0; k < 3; ++k) addGroup(engine, nullptr);
    auto* source = add<Source>(engine, 0);
    source->addOutputChannel(1)->solo = 1;
    COutputChannel* channel = source->firstOutputChannel();
    channel->volume = 0.7f;
    channel->pan = -0.3f;
    channel->trim = 0.25f;
    channel->outLevel = 0.8f;
    channel->mute = 1;
    channel->storedValue = 0.5f;
    channel->storedBytes[0] = 7;
    channel->storedBytes[5] = 9;
    channel->setParam(stripparam::firstEQ + 8, 1.0f);  // EQ2 power
    channel->setParam(stripparam::firstEQ + 10, 0.3f);
    channel->eqSettings[3].gain = -3.5f;
    channel->eqSettings[1].stored[2] = 42;
    for (int k = 0; k < COutputChannel::maxSends; ++k) channel->sends[k]->level = 0.1f * static_cast<float>(k + 1);
    Stage* insert = newInsert(engine, 2.5f);
    insert->wetLevel = 0.3f;
    insert->parentChannel = channel;  // as the cycle marks it
    channel->inserts.add(insert);

    const std::vector<uint8_t> first = saved(*source);
    EXPECT_EQ(tagsOf(first), (std::vector<std::string>{"aout", "strip2", "eq2", "sends", "insert2", "aouti", "wet",
                                                       "aout", "strip2", "eq2", "sends"}))
        << "an insert only names its channels";
    // volume, pan, trim, the stored value, solo, mute, the six stored bytes, the output level, six zero words
    const std::vector<uint8_t> strip = bytestest::Bytes()
                                           .header("aout", 4).i32(2).header("strip2", 52)
                                           .f32(0.7f).f32(-0.3f).f32(0.25f).f32(0.5f)
                                           .u8(0).u8(1).u8(7).u8(0).u8(255).u8(255).u8(255).u8(9)
                                           .f32(0.8f).zeros(24).data;
    ASSERT_GE(first.size(), strip.size());
    EXPECT_EQ(std::vector<uint8_t>(first.begin(), first.begin() + static_cast<ptrdiff_t>(strip.size())), strip);

    CQV other(singleThread());
    for (int k = 0; k < 3; ++k) addGroup(other, nullptr);
    Source loaded(&other, 0);  // no terminals: the blocks make them
    load(loaded, first);
    EXPECT_EQ(saved(loaded), first);

    // What the second save cannot show: the state a load sets up beside the saved fields.
    ASSERT_EQ(loaded.outputChannels.count(), 2);
    const COutputChannel* back = loaded.firstOutputChannel();
    EXPECT_EQ(back->gainNow, 0.0f) << "a loaded muted strip starts silent instead of ramping down";
    EXPECT_EQ(back->sends[3]->level.load(), 0.0f) << "only the sends of existing groups are kept";
    ASSERT_EQ(back->inserts.count(), 1);
    EXPECT_EQ(back->inserts.getAt(0)->parentChannel, back);

    EXPECT_EQ(tagsOf(saved(*addGroup(engine, nullptr))), (std::vector<std::string>{"aout", "strip2", "eq2"}))
        << "a group keeps no sends";
}

TEST(Latency, DirectPathsSendsAndGroupsMeetOnOneFrame) {
    // An impulse at frame 5 reaches the output straight, through 37 frames, through 37 + 100, and by the
    // sends of the first two into a group whose insert adds 11 more. Compensated, every path arrives on
    // one frame whatever the block size.
    constexpr int64_t expectedArrival = 5 + 137 + 11;
    const float path = std::tanh(1.0f);
    const float expectedSum = path + path + std::tanh(path) + std::tanh(path + 0.25f * path);
    for (int32_t block : {16, 64, 1000}) {
        CQV engine(singleThread());
        engine.setBlockSize(block);
        auto* out = add<CAudioOut>(engine);
        auto* impulse = add<Impulse>(engine);
        auto* direct = add<Stage>(engine, 1.0f, 0);
        auto* slow = add<Stage>(engine, 1.0f, 37);
        auto* slower = add<Stage>(engine, 1.0f, 100);
        addGroup(engine, out)->firstOutputChannel()->inserts.add(newInsert(engine, 1.0f, 11));
        connectAudio(*impulse, *direct);
        connectAudio(*impulse, *slow);
        connectAudio(*slow, *slower);
        for (Stage* stage : {direct, slow, slower}) connectAudio(*stage, *out);
        direct->firstOutputChannel()->sends[0]->level = 1.0f;
        slow->firstOutputChannel()->sends[0]->level = 0.5f;
        engine.raise(change::latency);

        const auto heard = heardFrames(engine, *out, 400 + 2 * block, block);
        ASSERT_EQ(heard.size(), 1u) << "block " << block << ": the paths did not meet";
        EXPECT_EQ(heard[0].first, expectedArrival) << block;
        EXPECT_NEAR(heard[0].second, expectedSum, 1e-6f) << block;
        EXPECT_EQ(engine.mainMaxLatency, 137);
        EXPECT_EQ(engine.groupMaxLatency, 11);
        EXPECT_EQ(direct->firstOutputChannel()->sendDelay, 137);
        EXPECT_EQ(slow->firstOutputChannel()->sendDelay, 100);

        // A switched-off component adds no latency of its own nor of what feeds it: the 37 frames of `slow`
        // drop out of the slower path, which keeps its own 100.
        slow->setPower(0);
        engine.raise(change::latency);
        engine.runCycle(block);
        EXPECT_EQ(engine.mainMaxLatency, 100);
    }
}
