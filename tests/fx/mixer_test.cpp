#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/stream.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "fx/mixer.h"

namespace {

EngineOptions singleThread() { return EngineOptions{false, 1}; }

std::vector<uint8_t> bytesOf(CMemoryStream& stream) { return {stream.data(), stream.data() + stream.getSize()}; }

void rewind(CMemoryStream& stream) { stream.seek(0, seekFromStart); }

}  // namespace

TEST(Mixer, ViewsSurviveSaveAndLoadByteForByte) {
    CQV engine(singleThread());
    CMixer mixer(&engine);
    mixer.view = 3;
    mixer.addProgram()->show = 5;
    mixer.addProgram()->show = 31;
    mixer.setProgramName(1, "Drums only");
    mixer.program = 1;
    CMemoryStream first;
    mixer.save(first);

    CMixer other(&engine);
    other.addProgram();  // replaced by what is loaded
    rewind(first);
    other.load(first, first.getSize());
    EXPECT_EQ(other.view, 3);
    EXPECT_EQ(other.program, 1);
    ASSERT_EQ(other.getProgramCount(), 2);
    EXPECT_STREQ(other.getProgramName(0).c_str(), "Program 1");
    EXPECT_STREQ(other.getProgramName(-1).c_str(), "Drums only");
    EXPECT_EQ(other.mixProgram(0)->show, 5);
    EXPECT_NE(other.changeFlags.load() & change::program, 0u);

    CMemoryStream second;
    other.save(second);
    EXPECT_EQ(bytesOf(second), bytesOf(first));
}

TEST(Mixer, LoadSkipsStrangeBlocksAndAShowBeforeAnyView) {
    CQV engine(singleThread());
    CMemoryStream stream;
    writeBlockHeader(stream, "sh", 4);
    stream.writeI32(7);  // no view yet: ignored
    writeBlockHeader(stream, "zzz", 3);
    stream.writeU8(1);
    stream.writeU8(2);
    stream.writeU8(3);
    writeBlockHeader(stream, "prog", 8);
    writeString(stream, "Mix");
    writeBlockHeader(stream, "sh", 4);
    stream.writeI32(9);
    rewind(stream);
    CMixer mixer(&engine);
    mixer.load(stream, stream.getSize());
    ASSERT_EQ(mixer.getProgramCount(), 1);
    EXPECT_STREQ(mixer.getProgramName(0).c_str(), "Mix");
    EXPECT_EQ(mixer.mixProgram(0)->show, 9);
    EXPECT_EQ(stream.tell(), stream.getSize());
}

TEST(Mixer, AddGroupIsOneStepThatUndoTakesBack) {
    CQV engine(singleThread());
    auto* out = new CAudioOut(&engine);
    out->createPorts();
    engine.addComp(out);
    CMixer mixer(&engine);

    ASSERT_TRUE(mixer.addGroup(true));
    ASSERT_EQ(engine.groupChannels.count(), 1);
    CGroupCh* group = engine.groupChannels.getAt(0);
    EXPECT_STREQ(group->getName().c_str(), "Group");
    ASSERT_EQ(out->audioCablesIn.count(), 1);
    const CAudioCable* cable = out->audioCablesIn.getAt(0);
    EXPECT_EQ(cable->source, group);
    EXPECT_EQ(cable->output, group->firstOutputChannel());
    EXPECT_EQ(cable->input, out->firstInputChannel());
    ASSERT_NE(group->firstInputChannel()->left(), nullptr) << "buffers are made before the step runs";
    EXPECT_NE(mixer.changeFlags.load() & 0x1, 0u) << "the window rebuilds its strips";

    engine.undo();
    engine.guiTick();
    EXPECT_EQ(engine.groupChannels.count(), 0);
    EXPECT_EQ(out->audioCablesIn.count(), 0);

    // One group for each send, and no more.
    for (int32_t k = 0; k < COutputChannel::maxSends; ++k) ASSERT_TRUE(mixer.addGroup(true)) << k;
    EXPECT_EQ(engine.groupChannels.count(), COutputChannel::maxSends);
    EXPECT_FALSE(mixer.addGroup(true));
    EXPECT_EQ(engine.groupChannels.count(), COutputChannel::maxSends);
}

TEST(MixParams, SizeWordIsZeroAndTheEntriesFollowIt) {
    CQV engine(singleThread());
    CComp owner(&engine);
    TList<CMixerParam> params;
    params.add(new CMixerParam(&owner, 3));
    params.add(new CMixerParam(&owner, -1));
    CMemoryStream stream;
    saveMixParams(params, stream);
    params.deleteAll();
    EXPECT_EQ(stream.getSize(), 4 + 9 + 4 + 4 + 2 * 16);

    rewind(stream);
    CBlockReader blocks(stream, stream.getSize());
    ASSERT_TRUE(blocks.next());
    EXPECT_TRUE(blocks.is("mixparams"));
    EXPECT_EQ(blocks.size(), 0u);
    loadMixParams(params, &owner, stream);
    ASSERT_EQ(params.count(), 2);
    EXPECT_EQ(params.getAt(0)->index, 3);
    EXPECT_EQ(params.getAt(1)->index, -1);
    EXPECT_EQ(params.getAt(1)->owner, &owner);
    params.deleteAll();

    // A count beyond what the stream holds reads what is there and stops.
    CMemoryStream damaged;
    damaged.writeI32(1000000);
    for (int32_t word : {0, 7, 0, 0}) damaged.writeI32(word);
    rewind(damaged);
    loadMixParams(params, &owner, damaged);
    ASSERT_EQ(params.count(), 1);
    EXPECT_EQ(params.getAt(0)->index, 7);
    params.deleteAll();

    CMemoryStream empty;
    saveMixParams(params, empty);
    EXPECT_EQ(empty.getSize(), 0) << "an empty list writes nothing";
}
