// The device components: the MIDI input's velocity sensitivity, on-screen keyboard and notes that wait
// for their frame (auto quantize and the shortest note), and the blocks they keep in a project.

#include <gtest/gtest.h>

#include <vector>

#include "engine/engine.h"
#include "engine/io.h"
#include "support/bytes.h"

using bytestest::Bytes;

namespace {

struct Heard {
    int64_t frame;
    uint32_t midi;
};

// Runs the component alone for `cycles` blocks and collects what its port sends, at absolute frames.
std::vector<Heard> runFor(CMIDIIn& in, int32_t cycles, int32_t frames) {
    std::vector<Heard> heard;
    for (int32_t c = 0; c < cycles; ++c) {
        in.beginCycle(frames);
        in.process(frames);
        for (const CMIDIEvent* e = in.firstOutputPort()->first(); e; e = e->next)
            heard.push_back({static_cast<int64_t>(c) * frames + static_cast<int64_t>(e->frame), e->midi});
    }
    return heard;
}

TEST(MIDIIn, VelocitySensitivityLiftsTheLowEndAndKeeps127) {
    CQV engine(EngineOptions{false, 1});
    CMIDIIn in(&engine);
    in.sens = 50;
    EXPECT_EQ(in.applySens(1), 64);
    EXPECT_EQ(in.applySens(127), 127);
    in.sens = 0;
    EXPECT_EQ(in.applySens(1), 127);
    in.sens = 100;
    for (int32_t v : {1, 40, 127}) EXPECT_EQ(in.applySens(v), v);

    // On the port: a note-on is lifted, a note-on of velocity 0 (a note-off) is left alone.
    in.createPorts();
    in.sens = 0;
    in.beginCycle(64);
    in.firstOutputPort()->appendEvent(0.0, 0x013C90);
    in.firstOutputPort()->appendEvent(0.0, 0x003C90);
    in.process(64);
    EXPECT_EQ(in.firstOutputPort()->events[0].midi, 0x7F3C90u);
    EXPECT_EQ(in.firstOutputPort()->events[1].midi, 0x003C90u);
}

TEST(MIDIIn, AKeyPressedWhileAnotherIsHeldEndsTheHeldNoteFirst) {
    CQV engine(EngineOptions{false, 1});
    CMIDIIn in(&engine);
    in.createPorts();
    in.keyEvent(60, true);
    in.keyEvent(62, true);
    in.keyEvent(0, false);
    std::vector<uint32_t> midi;
    for (const Heard& h : runFor(in, 1, 256)) midi.push_back(h.midi);
    EXPECT_EQ(midi, (std::vector<uint32_t>{0x643C90, 0x003C90, 0x643E90, 0x003E90}));
    EXPECT_EQ(in.heldKey, -1);
}

TEST(MIDIIn, AutoQuantizeWaitsForTheGridAndANoteStays120TicksLong) {
    CQV engine(EngineOptions{false, 1});
    engine.setSampleRate(48000.0);
    engine.bpm.store(120.0f);  // 0.04 ticks a frame
    CMIDIIn in(&engine);
    in.createPorts();
    engine.sequencer = &in;
    engine.playing.store(true);
    in.autoq = 4;  // a quarter note: 960 ticks
    in.setPosition(100.0);
    in.keyEvent(60, true);
    in.keyEvent(60, false);  // let go before the note has even started
    const std::vector<Heard> heard = runFor(in, 30, 1024);
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[0].frame, 21500);  // (960 - 100) ticks to the next quarter
    EXPECT_EQ(heard[0].midi, 0x643C90u);
    EXPECT_EQ(heard[1].frame - heard[0].frame, 3000);  // 120 ticks
    EXPECT_EQ(heard[1].midi, 0x003C90u);

    // Stopped, the same key goes out at once.
    engine.playing.store(false);
    in.keyEvent(64, true);
    const std::vector<Heard> now = runFor(in, 1, 1024);
    ASSERT_EQ(now.size(), 1u);
    EXPECT_EQ(now[0].frame, 0);
}

TEST(DeviceComponents, KeepTheirChannelsAndDevicesInBlocksOfTheirOwnWidth) {
    CQV engine(EngineOptions{false, 1});
    CAudioOut out(&engine);
    out.channels = 1;
    out.deviceLeft = 3;
    out.deviceRight = 4;
    EXPECT_EQ(bytestest::saved(out), Bytes().header("chs", 1).u8(1).header("devs", 2).u8(3).u8(4).data);

    // An unknown block is passed over, a value the component can't take is made one it can, and a
    // "devs" cut short keeps what it held.
    CAudioIn in(&engine);
    bytestest::loadBytes(
        in, Bytes().header("later", 3).u8(9).u8(9).u8(9).header("chs", 1).u8(7).header("devs", 2).u8(5).data);
    EXPECT_EQ(in.channels, 2);
    EXPECT_EQ(in.deviceLeft, 5);
    EXPECT_EQ(in.deviceRight, 1);

    // The MIDI components keep their device as a signed byte.
    Bytes midi;
    midi.header("sens", 4).i32(60).header("device", 1).u8(0xFF);
    CMIDIIn midiIn(&engine);
    midiIn.device = 4;
    bytestest::loadBytes(midiIn, midi.data);
    EXPECT_EQ(midiIn.device, -1);
    EXPECT_EQ(midiIn.sens, 60);
    CMIDIOut midiOut(&engine);
    bytestest::loadBytes(midiOut, midi.header("device", 1).u8(3).data);
    EXPECT_EQ(midiOut.device, 3);
}

}  // namespace
