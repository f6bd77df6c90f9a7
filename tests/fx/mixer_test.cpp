#include <gtest/gtest.h>

#include <tuple>
#include <utility>
#include <vector>

#include "core/stream.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "fx/mixer.h"
#include "support/bytes.h"

namespace {

using namespace bytestest;

struct MixerRig {
    CQV engine{EngineOptions{false, 1}};
    CMixer mixer{&engine};
};

}  // namespace

TEST(Mixer, ViewsSurviveSaveAndLoadByteForByte) {
    MixerRig rig;
    rig.mixer.view = 3;
    rig.mixer.addProgram()->show = 5;
    rig.mixer.addProgram()->show = 31;
    rig.mixer.setProgramName(1, "Drums only");
    rig.mixer.program = 1;
    const std::vector<uint8_t> first = saved(rig.mixer);

    CMixer other(&rig.engine);
    other.addProgram();  // replaced by what is loaded
    loadBytes(other, first);
    EXPECT_EQ(other.view, 3);
    EXPECT_EQ(other.program, 1);
    ASSERT_EQ(other.getProgramCount(), 2);
    EXPECT_STREQ(other.getProgramName(0).c_str(), "Program 1");
    EXPECT_STREQ(other.getProgramName(-1).c_str(), "Drums only");
    EXPECT_EQ(other.mixProgram(0)->show, 5);
    EXPECT_NE(other.changeFlags.load() & change::program, 0u);
    EXPECT_EQ(saved(other), first);
}

TEST(Mixer, LoadSkipsStrangeBlocksAndAShowBeforeAnyView) {
    Bytes file;
    file.header("sh", 4).i32(7)  // no view yet: ignored
        .header("zzz", 3).u8(1).u8(2).u8(3)
        .header("prog", 8).text("Mix")
        .header("sh", 4).i32(9);
    CMemoryStream stream;
    fill(stream, file.data);
    MixerRig rig;
    rig.mixer.load(stream, stream.getSize());
    ASSERT_EQ(rig.mixer.getProgramCount(), 1);
    EXPECT_STREQ(rig.mixer.getProgramName(0).c_str(), "Mix");
    EXPECT_EQ(rig.mixer.mixProgram(0)->show, 9);
    EXPECT_EQ(stream.tell(), stream.getSize());
}

TEST(Mixer, AddGroupIsOneStepThatUndoTakesBack) {
    MixerRig rig;
    CQV& engine = rig.engine;
    auto* out = new CAudioOut(&engine);
    out->createPorts();
    engine.addComp(out);

    ASSERT_TRUE(rig.mixer.addGroup(true));
    ASSERT_EQ(engine.groupChannels.count(), 1);
    CGroupCh* group = engine.groupChannels.getAt(0);
    EXPECT_STREQ(group->getName().c_str(), "Group");
    ASSERT_EQ(out->audioCablesIn.count(), 1);
    const CAudioCable* cable = out->audioCablesIn.getAt(0);
    EXPECT_EQ(std::tuple(cable->source, cable->output, cable->input),
              std::tuple(group, group->firstOutputChannel(), out->firstInputChannel()));
    ASSERT_NE(group->firstInputChannel()->left(), nullptr) << "buffers are made before the step runs";
    EXPECT_NE(rig.mixer.changeFlags.load() & 0x1, 0u) << "the window rebuilds its strips";

    engine.undo();
    engine.guiTick();
    EXPECT_EQ(engine.groupChannels.count(), 0);
    EXPECT_EQ(out->audioCablesIn.count(), 0);

    // One group for each send, and no more.
    for (int32_t k = 0; k < COutputChannel::maxSends; ++k) ASSERT_TRUE(rig.mixer.addGroup(true)) << k;
    EXPECT_FALSE(rig.mixer.addGroup(true));
    EXPECT_EQ(engine.groupChannels.count(), COutputChannel::maxSends);
}

TEST(MixParams, SizeWordIsZeroAndTheEntriesFollowIt) {
    CQV engine(EngineOptions{false, 1});
    CComp owner(&engine);
    TList<CMixerParam> params;
    CMemoryStream empty;
    saveMixParams(params, empty);
    EXPECT_EQ(empty.getSize(), 0) << "an empty list writes nothing";

    params.add(new CMixerParam(&owner, 3));
    params.add(new CMixerParam(&owner, -1));
    CMemoryStream stream;
    saveMixParams(params, stream);
    params.deleteAll();
    Bytes expect;
    expect.header("mixparams", 0).i32(2).i32(0).i32(3).i32(0).i32(0).i32(0).i32(-1).i32(0).i32(0);
    EXPECT_EQ(bytesOf(stream), expect.data);

    // A count beyond what the stream holds reads what is there and stops.
    for (const std::vector<int32_t>& entries : {std::vector{0, 3, 0, 0, 0, -1, 0, 0}, std::vector{0, 7, 0, 0}}) {
        Bytes file;
        file.i32(entries.size() == 8 ? 2 : 1000000);
        for (int32_t word : entries) file.i32(word);
        CMemoryStream in;
        fill(in, file.data);
        loadMixParams(params, &owner, in);
        ASSERT_EQ(params.count(), static_cast<int32_t>(entries.size() / 4));
        for (int32_t k = 0; k < params.count(); ++k)
            EXPECT_EQ(std::pair(params.getAt(k)->index, params.getAt(k)->owner), std::pair(entries[4 * k + 1], &owner));
        params.deleteAll();
    }
}
