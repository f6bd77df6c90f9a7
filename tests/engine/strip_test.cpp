#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/stream.h"
#include "engine/strip_io.h"
#include "support/bytes.h"
#include "support/compare.h"
#include "support/engine_graph.h"
#include "support/rt_probe.h"

using namespace comparetest;
using namespace testgraph;

namespace {

constexpr double rate = 48000.0;
constexpr int32_t ramp = COutputChannel::rampFrames;

EngineOptions singleThread() { return EngineOptions{false, 1}; }

// Never 0 in the first thousands of frames, different on each side.
float wave(int64_t frame, int side) {
    return static_cast<float>(0.6 * std::sin(0.0131 * static_cast<double>(frame) + 0.7 + side) + 0.05 * side);
}

// Plays a signal of the absolute frame into its one output channel; its input port takes param events.
class Player : public CComp {
public:
    explicit Player(CQV* engine, float (*signal)(int64_t, int) = wave) : CComp(engine), signal(signal) {}
    void createPorts() override {
        addInputPort();
        addOutputChannel();
    }
    void processBlock(int32_t frames) override {
        COutputChannel* out = firstOutputChannel();
        for (int32_t i = 0; i < frames; ++i, ++at) {
            out->left()[i] = signal(at, 0);
            out->right()[i] = signal(at, 1);
        }
    }
    float (*signal)(int64_t, int);
    int64_t at = 0;
};

CGroupCh* addGroup(CQV& engine, CAudioOut* out) {
    auto* group = new CGroupCh(&engine);
    group->createPorts();
    engine.addGroupChannel(group);
    if (out) connectAudio(*group, *out);
    return group;
}

struct Rig {
    Rig(int32_t block, int32_t groupCount) : engine(singleThread()) {
        engine.setBlockSize(block);
        engine.setSampleRate(rate);
        out = add<CAudioOut>(engine);
        for (int32_t k = 0; k < groupCount; ++k) groups.push_back(addGroup(engine, out));
    }
    Player* player(float (*signal)(int64_t, int) = wave) {
        auto* p = add<Player>(engine, signal);
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
    void* target = nullptr;  // null: the channel
};

struct Captured {
    std::vector<float> left, right;
};

// Runs whole cycles of `block` frames, putting each change into the player's port in the cycle where it
// falls, and keeps what the player's strip made of each frame.
Captured play(Rig& rig, Player& player, int32_t block, int64_t total, const std::vector<Change>& changes) {
    Captured result;
    COutputChannel* channel = player.firstOutputChannel();
    for (int64_t start = 0; start < total; start += block) {
        rig.engine.beginCycle(block);
        for (const Change& c : changes)
            if (c.frame >= start && c.frame < start + block)
                player.firstInputPort()->addEvent(static_cast<double>(c.frame - start), 0, EventType::param, c.value,
                                                  c.param, c.target ? c.target : channel);
        rig.engine.process(block);
        result.left.insert(result.left.end(), channel->left(), channel->left() + block);
        result.right.insert(result.right.end(), channel->right(), channel->right() + block);
    }
    result.left.resize(static_cast<size_t>(total));
    result.right.resize(static_cast<size_t>(total));
    return result;
}

// The pan law of the conventions, written out.
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
        const float now = at(frame);
        from = now;
        to = target;
        start = frame;
        step = (target - now) / static_cast<float>(ramp);
    }
};

}  // namespace

TEST(Fader, RampedSquareLawIsExactAtEveryBlockSize) {
    // Volume and pan change by events: down to 0.5, back up mid-ramp, pan left while the fader moves,
    // then right, then mute. The output must not depend on how the blocks cut the ramps.
    constexpr int64_t total = 2048;
    std::vector<Change> changes = {
        {100, stripparam::volume, 0.5f}, {150, stripparam::volume, 0.8f},   {600, stripparam::pan, 0.25f},
        {650, stripparam::volume, 0.3f}, {900, stripparam::pan, 0.9f},     {1200, stripparam::mute, 1.0f},
        {1500, stripparam::mute, 0.0f},
    };

    // Reference: frame by frame from the formulas.
    RefRamp gain{1.0f, 1.0f}, left{1.0f, 1.0f}, right{1.0f, 1.0f};
    float volume = 1.0f, pan = 0.0f;
    bool muted = false;
    Captured expected;
    for (int64_t f = 0; f < total; ++f) {
        for (const Change& c : changes) {
            if (c.frame != f) continue;
            if (c.param == stripparam::volume) volume = c.value;
            if (c.param == stripparam::mute) muted = c.value > 0.5f;
            if (c.param == stripparam::pan) {
                pan = 2.0f * c.value - 1.0f;
                left.retarget(f, panGains(pan).left);
                right.retarget(f, panGains(pan).right);
            } else {
                gain.retarget(f, muted ? 0.0f : volume);
            }
        }
        const float g = gain.at(f);
        expected.left.push_back(left.at(f) * wave(f, 0) * g * g);
        expected.right.push_back(right.at(f) * wave(f, 1) * g * g);
    }

    std::vector<Captured> runs;
    for (int32_t block : {1, 7, 64, 1024}) {
        Rig rig(block, 0);
        Player* player = rig.player();
        runs.push_back(play(rig, *player, block, total, changes));
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
    const Row rows[] = {{false, true, 0, 1}, {true, true, 1, 1}};
    constexpr int32_t block = 256;
    for (const Row& row : rows) {
        Rig rig(block, 1);
        Player* a = rig.player();
        Player* b = rig.player();
        a->firstOutputChannel()->sends[0]->level = 1.0f;
        a->firstOutputChannel()->solo = row.soloA;
        b->firstOutputChannel()->solo = row.soloB;
        for (int cycle = 0; cycle < 2; ++cycle) rig.engine.runCycle(block);  // past the ramps

        const float* outLeft = rig.out->firstOutputChannel()->left();
        const float* groupLeft = rig.groups[0]->firstOutputChannel()->left();
        for (int32_t i = 0; i < block; ++i) {
            const int64_t f = block + i;
            const float fromA = row.gainA * wave(f, 0);
            const float fromB = row.gainB * wave(f, 0);
            ASSERT_EQ(a->firstOutputChannel()->left()[i], fromA) << i;
            ASSERT_EQ(b->firstOutputChannel()->left()[i], fromB) << i;
            ASSERT_EQ(groupLeft[i], fromA) << "the group keeps its level; " << i;
            ASSERT_EQ(outLeft[i], fromA + fromB + fromA) << "the output keeps its level; " << i;
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
        Player* player = rig.player();
        COutputChannel* channel = player->firstOutputChannel();
        channel->volume = row.volume;
        channel->pan = row.pan;
        channel->outLevel = row.outLevel;
        channel->snapRamps();
        channel->sends[row.send]->level = row.level;
        channel->sends[row.send]->disabled = row.disabled;
        rig.engine.runCycle(block);

        const Pan gains = panGains(row.pan);
        const float s = row.disabled ? 0.0f : row.level * row.level;
        for (int32_t i = 0; i < block; ++i) {
            const float postFader = gains.left * wave(i, 0) * row.volume * row.volume;
            for (int32_t k = 0; k < 2; ++k) {
                const float heard = rig.groups[k]->firstOutputChannel()->left()[i];
                ASSERT_FLOAT_EQ(heard, k == row.send ? s * postFader : 0.0f) << "group " << k << " frame " << i;
            }
            ASSERT_FLOAT_EQ(channel->left()[i], postFader * row.outLevel) << "the output level comes after the sends";
        }
    }
}

TEST(Sends, MuteStopsThemAtOnceWhileTheFaderRamps) {
    constexpr int32_t block = 256;
    constexpr int32_t muteAt = 40;
    for (int32_t sendDelay : {0, 13}) {
        Rig rig(block, 1);
        Player* player = rig.player();
        COutputChannel* channel = player->firstOutputChannel();
        channel->sends[0]->level = 1.0f;
        channel->sendDelay = sendDelay;
        Captured first = play(rig, *player, block, block, {});
        Captured second = play(rig, *player, block, block, {{muteAt, stripparam::mute, 1.0f}});

        auto sent = [&](int64_t f) { return f < block ? first.left[f] : second.left[f - block]; };
        const float* group = rig.groups[0]->firstOutputChannel()->left();
        for (int32_t i = 0; i < block; ++i) {
            const float expected = i < muteAt ? sent(block + i - sendDelay) : 0.0f;
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
    const Row rows[] = {{0.0f, 0.0f, false}, {0.25f, 1.0f, false}, {1.0f, -0.5f, true}};
    constexpr int32_t block = 128;
    constexpr float shape = 3.0f;
    for (const Row& row : rows) {
        Rig rig(block, 0);
        Player* player = rig.player();
        COutputChannel* channel = player->firstOutputChannel();
        auto* insert = new Stage(&rig.engine, shape);
        insert->createPorts();
        insert->setBlockSize(block);
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
        const float trimGain = std::pow(4.0f, row.trim);
        for (int32_t i = 0; i < block; ++i) in[i] = row.trim != 0.0f ? wave(i, 0) * trimGain : wave(i, 0);
        if (row.eqOn) reference.process(in.data(), in.data(), in.data(), unused.data(), block);
        float peak = 0.0f;
        for (int32_t i = 0; i < block; ++i) {
            const float wetOut = std::tanh(shape * in[i]);
            const float expected = row.wet < 1.0f ? (1.0f - row.wet) * in[i] + row.wet * wetOut : wetOut;
            peak = std::max(peak, std::fabs(expected));
            ASSERT_NEAR(channel->left()[i], expected, 1e-6f) << "wet " << row.wet << " frame " << i;
        }
        EXPECT_EQ(insert->runs, 1) << "the insert runs even when dry";
        EXPECT_NEAR(insert->firstOutputChannel()->holdLeft.load(), peak, 1e-6f);
        if (row.wet == 0.0f) {
            for (int32_t i = 0; i < block; ++i) ASSERT_EQ(channel->left()[i], wave(i, 0)) << "dry passes unchanged";
        }
    }
}

TEST(Strip, ExclusiveRenderOfEveryChannelOnlyMeters) {
    constexpr int32_t block = 64;
    Rig rig(block, 0);
    Player* player = rig.player();
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
    CQV engine(singleThread());
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
    Player* player = rig.player();
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

TEST(StripBlocks, SaveLoadSaveGivesIdenticalBytes) {
    CQV engine(singleThread());
    for (int k = 0; k < 3; ++k) addGroup(engine, nullptr);
    auto* source = add<Player>(engine);
    source->addOutputChannel(1);
    COutputChannel* channel = source->firstOutputChannel();
    channel->volume = 0.7f;
    channel->pan = -0.3f;
    channel->trim = 0.25f;
    channel->outLevel = 0.8f;
    channel->mute = 1;
    channel->solo = 1;
    channel->storedValue = 0.5f;
    channel->storedBytes[0] = 7;
    channel->storedBytes[5] = 9;
    channel->setParam(stripparam::firstEQ + 8, 1.0f);  // EQ2 power
    channel->setParam(stripparam::firstEQ + 10, 0.3f);
    channel->eqSettings[3].gain = -3.5f;
    channel->eqSettings[1].stored[2] = 42;
    for (int k = 0; k < COutputChannel::maxSends; ++k) channel->sends[k]->level = 0.1f * static_cast<float>(k + 1);
    auto* insert = new Stage(&engine, 2.5f);
    insert->createPorts();
    insert->wetLevel = 0.3f;
    insert->parentChannel = channel;  // as the cycle marks it
    channel->inserts.add(insert);

    const std::vector<uint8_t> first = saved(*source);
    EXPECT_EQ(tagsOf(first), (std::vector<std::string>{"aout", "strip2", "eq2", "sends", "insert2", "aouti", "wet", "aout",
                                                       "strip2", "eq2", "sends"}));

    CQV other(singleThread());
    for (int k = 0; k < 3; ++k) addGroup(other, nullptr);
    Player loaded(&other);  // no terminals: the blocks make them
    load(loaded, first);
    EXPECT_EQ(saved(loaded), first);

    // What the second save cannot show: the state a load sets up beside the saved fields.
    ASSERT_EQ(loaded.outputChannels.count(), 2);
    const COutputChannel* back = loaded.firstOutputChannel();
    EXPECT_EQ(back->gainNow, 0.0f) << "a loaded muted strip starts silent instead of ramping down";
    EXPECT_EQ(back->sends[3]->level.load(), 0.0f) << "only the sends of existing groups are kept";
    ASSERT_EQ(back->inserts.count(), 1);
    EXPECT_EQ(back->inserts.getAt(0)->parentChannel, back);
}

TEST(StripBlocks, StripTwoLaysItsFieldsOutAtTheirOffsets) {
    CQV engine(singleThread());
    auto* source = add<Player>(engine);
    COutputChannel* channel = source->firstOutputChannel();
    channel->volume = 0.25f;
    channel->pan = 0.5f;
    channel->trim = -1.0f;
    channel->solo = 1;
    channel->outLevel = 0.75f;
    const std::vector<uint8_t> bytes = saved(*source);
    // "aout" block: 4 + 4 + 4 + 4 bytes, then "strip2": u32 6, "strip2", u32 52.
    constexpr size_t aoutBlock = 4 + 4 + 4 + 4;
    constexpr size_t payload = aoutBlock + 4 + 6 + 4;
    ASSERT_GE(bytes.size(), payload + 52);
    auto f32 = [&](size_t offset) {
        float v;
        std::memcpy(&v, &bytes[payload + offset], 4);
        return v;
    };
    uint32_t size;
    std::memcpy(&size, &bytes[aoutBlock + 4 + 6], 4);
    EXPECT_EQ(size, 52u);
    EXPECT_EQ(f32(0), 0.25f);
    EXPECT_EQ(f32(4), 0.5f);
    EXPECT_EQ(f32(8), -1.0f);
    EXPECT_EQ(f32(12), 1.0f);
    EXPECT_EQ(bytes[payload + 16], 1) << "solo";
    EXPECT_EQ(bytes[payload + 17], 0) << "mute";
    const std::vector<uint8_t> storedDefaults = {1, 0, 255, 255, 255, 255};
    EXPECT_EQ(std::vector<uint8_t>(&bytes[payload + 18], &bytes[payload + 24]), storedDefaults);
    EXPECT_EQ(f32(24), 0.75f);
    for (size_t offset = 28; offset < 52; ++offset) ASSERT_EQ(bytes[payload + offset], 0) << offset;

    // A group keeps no sends; an insert only names its channels.
    auto* group = addGroup(engine, nullptr);
    EXPECT_EQ(tagsOf(saved(*group)), (std::vector<std::string>{"aout", "strip2", "eq2"}));
    auto* insert = new Stage(&engine, 1.0f);
    insert->createPorts();
    insert->parentChannel = channel;
    EXPECT_EQ(tagsOf(saved(*insert)), (std::vector<std::string>{"aouti"}));
    delete insert;
}

TEST(Latency, DirectPathsSendsAndGroupsMeetOnOneFrame) {
    // An impulse at frame 5 reaches the output straight, through 37 frames of latency, and through the
    // sends of both into a group whose insert adds 11 more.
    constexpr int64_t expectedArrival = 5 + 37 + 11;
    const float path = std::tanh(1.0f);
    const float grouped = std::tanh(path + 0.25f * path);
    const float expectedSum = path + path + grouped;
    for (int32_t block : {16, 64, 1000}) {
        CQV engine(singleThread());
        engine.setBlockSize(block);
        auto* out = add<CAudioOut>(engine);
        auto* source = add<Impulse>(engine);
        auto* direct = add<Stage>(engine, 1.0f, 0);
        auto* slow = add<Stage>(engine, 1.0f, 37);
        CGroupCh* group = addGroup(engine, out);
        auto* insert = new Stage(&engine, 1.0f, 11);
        insert->createPorts();
        insert->setBlockSize(block);
        group->firstOutputChannel()->inserts.add(insert);
        connectAudio(*source, *direct);
        connectAudio(*source, *slow);
        connectAudio(*direct, *out);
        connectAudio(*slow, *out);
        direct->firstOutputChannel()->sends[0]->level = 1.0f;
        slow->firstOutputChannel()->sends[0]->level = 0.5f;
        engine.raise(change::latency);

        const auto heard = heardFrames(engine, *out, 200 + 2 * block, block);
        ASSERT_EQ(heard.size(), 1u) << "block " << block << ": the paths did not meet";
        EXPECT_EQ(heard[0].first, expectedArrival) << block;
        EXPECT_NEAR(heard[0].second, expectedSum, 1e-6f) << block;
        EXPECT_EQ(direct->firstOutputChannel()->sendDelay, 37);
        EXPECT_EQ(slow->firstOutputChannel()->sendDelay, 0);
    }
}

TEST(Sends, ParallelPathIsBitIdenticalWithSendsLive) {
    constexpr int32_t block = 256;
    constexpr int32_t cycles = 30;
    auto build = [](CQV& engine) {
        engine.setBlockSize(block);
        RandomGraph graph = buildRandomGraph(engine, 48, 5);
        addGroup(engine, graph.out);
        int n = 0;
        for (CComp* node : graph.nodes) {
            COutputChannel* channel = node->firstOutputChannel();
            channel->sends[n % 2]->level = 0.2f + 0.1f * static_cast<float>(n % 7);
            channel->volume = 0.6f + 0.05f * static_cast<float>(n % 5);
            channel->pan = -0.5f + 0.2f * static_cast<float>(n % 6);
            ++n;
        }
        engine.raise(change::latency);
        return graph;
    };
    CQV single(EngineOptions{false, 1});
    CQV parallel(EngineOptions{false, 5});
    ASSERT_GT(parallel.workers->threadCount, 0);
    RandomGraph a = build(single);
    RandomGraph b = build(parallel);
    std::vector<float> expected = runAndCapture(single, *a.out, cycles, block);
    std::vector<float> actual = runAndCapture(parallel, *b.out, cycles, block);
    EXPECT_EQ(firstDifference(expected, actual), noDifference);
    EXPECT_GT(parallel.workers->peakItems, 1);
}

TEST(RealTime, StripsWithSendsEQAndInsertsAllocateNothing) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    constexpr int32_t block = 512;
    Rig rig(block, 2);
    std::vector<Player*> players;
    for (int p = 0; p < 4; ++p) {
        Player* player = rig.player();
        COutputChannel* channel = player->firstOutputChannel();
        for (int32_t band = 0; band < COutputChannel::eqBands; ++band) channel->setParam(stripparam::firstEQ + band * 4, 1.0f);
        channel->sends[0]->level = 0.5f;
        channel->sends[1]->level = 0.8f;
        channel->sendDelay = 100 * p;
        channel->trim = 0.2f;
        auto* insert = new Stage(&rig.engine, 1.5f);
        insert->createPorts();
        insert->setBlockSize(block);
        insert->wetLevel = 0.5f;
        channel->inserts.add(insert);
        players.push_back(player);
    }
    rig.engine.runCycle(block);

    int64_t allocations = 0, locks = 0;
    {
        rtprobe::Scope probe;
        for (int cycle = 0; cycle < 500; ++cycle) {
            rig.engine.beginCycle(block);
            for (Player* player : players) {
                COutputChannel* channel = player->firstOutputChannel();
                CInputPort* port = player->firstInputPort();
                port->addEvent(17.0, 0, EventType::param, 0.3f + 0.001f * static_cast<float>(cycle % 100), stripparam::volume, channel);
                port->addEvent(100.0, 0, EventType::param, 0.6f, stripparam::firstEQ + 5, channel);
                port->addEvent(200.0, 0, EventType::param, 0.4f, 0, channel->sends[1]);
            }
            rig.engine.process(block);
        }
        allocations = probe.allocations();
        locks = probe.locks();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(locks, 0);
}
