// The device components: the MIDI input's velocity sensitivity, on-screen keyboard and notes that wait
// for their frame (auto quantize and the shortest note), and the blocks they keep in a project.

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/stream.h"
#include "engine/engine.h"
#include "engine/io.h"

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
    const std::vector<Heard> heard = runFor(in, 1, 256);
    ASSERT_EQ(heard.size(), 4u);
    EXPECT_EQ(heard[0].midi, 0x643C90u);
    EXPECT_EQ(heard[1].midi, 0x003C90u);
    EXPECT_EQ(heard[2].midi, 0x643E90u);
    EXPECT_EQ(heard[3].midi, 0x003E90u);
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

// A block by hand: u32 tag length, the tag, u32 payload size, the payload.
void block(std::vector<uint8_t>& bytes, const char* tag, std::vector<uint8_t> payload, int32_t size = -1) {
    const auto u32 = [&bytes](uint32_t v) {
        for (int k = 0; k < 4; ++k) bytes.push_back(static_cast<uint8_t>(v >> (8 * k)));
    };
    u32(static_cast<uint32_t>(std::strlen(tag)));
    bytes.insert(bytes.end(), tag, tag + std::strlen(tag));
    u32(static_cast<uint32_t>(size < 0 ? static_cast<int32_t>(payload.size()) : size));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
}

template <class T>
void loadFrom(T& comp, const std::vector<uint8_t>& bytes) {
    CMemoryStream stream;
    stream.write(bytes.data(), static_cast<int32_t>(bytes.size()));
    stream.seek(0, seekFromStart);
    comp.load(stream, stream.getSize());
}

TEST(DeviceComponents, KeepTheirChannelsAndDevicesInBlocksOfTheirOwnWidth) {
    CQV engine(EngineOptions{false, 1});
    CAudioOut out(&engine);
    out.channels = 1;
    out.deviceLeft = 3;
    out.deviceRight = 4;
    CMemoryStream stream;
    out.save(stream);
    std::vector<uint8_t> expected;
    block(expected, "chs", {1});
    block(expected, "devs", {3, 4});
    EXPECT_EQ(std::vector<uint8_t>(stream.data(), stream.data() + stream.getSize()), expected);

    // An unknown block is passed over, a value the component can't take is made one it can, and a
    // "devs" cut short keeps what it held.
    std::vector<uint8_t> damaged;
    block(damaged, "later", {9, 9, 9});
    block(damaged, "chs", {7});
    block(damaged, "devs", {5}, 2);
    CAudioIn in(&engine);
    loadFrom(in, damaged);
    EXPECT_EQ(in.channels, 2);
    EXPECT_EQ(in.deviceLeft, 5);
    EXPECT_EQ(in.deviceRight, 1);

    // The MIDI components keep their device as a signed byte.
    std::vector<uint8_t> midi;
    block(midi, "sens", {60, 0, 0, 0});
    block(midi, "device", {0xFF});
    CMIDIIn midiIn(&engine);
    midiIn.device = 4;
    loadFrom(midiIn, midi);
    EXPECT_EQ(midiIn.device, -1);
    EXPECT_EQ(midiIn.sens, 60);
    CMIDIOut midiOut(&engine);
    block(midi, "device", {3});
    loadFrom(midiOut, midi);
    EXPECT_EQ(midiOut.device, 3);
}

}  // namespace
