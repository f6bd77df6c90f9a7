#include "engine/io.h"

#include <algorithm>
#include <array>

#include "core/block_in.h"
#include "core/stream.h"
#include "engine/engine.h"

namespace {

void writeByteBlock(CStream& stream, const char* tag, int32_t value) {
    writeBlockHeader(stream, tag, 1);
    stream.writeU8(static_cast<uint8_t>(value));
}

void writeI32Block(CStream& stream, const char* tag, int32_t value) {
    writeBlockHeader(stream, tag, 4);
    stream.writeI32(value);
}

// "chs" and "devs" of the audio device components.
void saveDeviceChannels(CStream& stream, int32_t channels, int32_t left, int32_t right) {
    writeByteBlock(stream, "chs", channels);
    writeBlockHeader(stream, "devs", 2);
    stream.writeU8(static_cast<uint8_t>(left));
    stream.writeU8(static_cast<uint8_t>(right));
}

void loadDeviceChannels(CStream& stream, int32_t end, int32_t& channels, int32_t& left, int32_t& right) {
    CBlockReader blocks(stream, end);
    while (blocks.next()) {
        BlockIn in(stream, blocks.blockEnd());
        int32_t value = 0;
        if (blocks.is("chs") && in.u8To(value)) channels = value == 1 ? 1 : 2;
        else if (blocks.is("devs") && in.u8To(left)) in.u8To(right);
        blocks.skip();
    }
}

// A signed byte: -1 takes every device.
bool readDevice(BlockIn& in, int32_t& device) {
    uint8_t byte = 0;
    if (!in.u8(byte)) return false;
    device = static_cast<int8_t>(byte);
    return true;
}

}  // namespace

void CAudioIn::load(CStream& stream, int32_t end) { loadDeviceChannels(stream, end, channels, deviceLeft, deviceRight); }
void CAudioIn::save(CStream& stream) { saveDeviceChannels(stream, channels, deviceLeft, deviceRight); }
void CAudioOut::load(CStream& stream, int32_t end) { loadDeviceChannels(stream, end, channels, deviceLeft, deviceRight); }
void CAudioOut::save(CStream& stream) { saveDeviceChannels(stream, channels, deviceLeft, deviceRight); }

void CMIDIIn::save(CStream& stream) {
    writeI32Block(stream, "key", showKeyboard);
    writeI32Block(stream, "keybHeight", keyboardHeight);
    writeI32Block(stream, "params", showParams);
    writeI32Block(stream, "sens", sens);
    writeI32Block(stream, "autoq", autoq);
    writeByteBlock(stream, "device", device);
}

void CMIDIIn::load(CStream& stream, int32_t end) {
    CBlockReader blocks(stream, end);
    while (blocks.next()) {
        BlockIn in(stream, blocks.blockEnd());
        if (blocks.is("key")) in.i32(showKeyboard);
        else if (blocks.is("keybHeight")) in.i32(keyboardHeight);
        else if (blocks.is("params")) in.i32(showParams);
        else if (blocks.is("sens")) in.i32(sens);
        else if (blocks.is("autoq")) in.i32(autoq);
        else if (blocks.is("device")) readDevice(in, device);
        blocks.skip();
    }
    sens = std::clamp(sens, 0, 100);
}

void CMIDIOut::save(CStream& stream) { writeByteBlock(stream, "device", device); }

void CMIDIOut::load(CStream& stream, int32_t end) {
    CBlockReader blocks(stream, end);
    while (blocks.next()) {
        BlockIn in(stream, blocks.blockEnd());
        if (blocks.is("device")) readDevice(in, device);
        blocks.skip();
    }
}

void CAudioIn::createPorts() {
    addInputPort();
    addOutputChannel();
}

void CAudioIn::process(int32_t /*frames*/) {
    CycleGuardScope scope(processGuard);
}

void CAudioOut::createPorts() {
    addInputPort();
    addInputChannel();
    addOutputChannel();
}

void CAudioOut::process(int32_t frames) {
    CycleGuardScope scope(processGuard);
    if (!scope.entered()) return;
    pullMIDI(frames);
    const CInputChannel* in = firstInputChannel();
    const COutputChannel* out = firstOutputChannel();
    if (!in || !out || !in->left() || !out->left()) return;
    std::copy_n(in->left(), frames, out->left());
    std::copy_n(in->right(), frames, out->right());
}

CMIDIIn::CMIDIIn(CQV* engine) : CComp(engine, compMIDIIn), guiQueue(std::make_unique<CMIDIQ>(this)) { name = "MIDI In"; }

void CMIDIIn::createPorts() { addOutputPort(); }

namespace {

constexpr uint32_t noteOnStatus = 0x90;

bool isNoteOn(uint32_t midi) { return (midi & 0xF0) == noteOnStatus && ((midi >> 16) & 0x7F) > 0; }
bool isNoteEnd(uint32_t midi) { return (midi & 0xF0) == 0x80 || ((midi & 0xF0) == noteOnStatus && ((midi >> 16) & 0x7F) == 0); }

}  // namespace

int32_t CMIDIIn::applySens(int32_t velocity) const {
    const double s = sens * 0.01;
    return 1 - static_cast<int32_t>(((velocity - 1) / 126.0 * s + (1.0 - s)) * -126.0);
}

void CMIDIIn::keyEvent(int32_t key, bool down) {
    const auto note = [](int32_t k, uint32_t velocity) { return noteOnStatus | (static_cast<uint32_t>(k & 0x7F) << 8) | (velocity << 16); };
    if (down && heldKey >= 0) guiQueue->appendEvent(0.0, note(heldKey, 0));
    if (down) {
        guiQueue->appendEvent(0.0, note(key, 100));
        heldKey = key;
    } else if (heldKey >= 0) {
        guiQueue->appendEvent(0.0, note(heldKey, 0));
        heldKey = -1;
    }
}

void CMIDIIn::process(int32_t frames) {
    CycleGuardScope scope(processGuard);
    if (!scope.entered()) return;
    COutputPort* port = firstOutputPort();
    if (!port) return;
    const auto withSens = [this](uint32_t midi) {
        if (!isNoteOn(midi) || sens >= 100) return midi;
        const auto velocity = static_cast<uint32_t>(std::clamp(applySens(static_cast<int32_t>((midi >> 16) & 0x7F)), 1, 127));
        return (midi & 0xFF00FFFFu) | (velocity << 16);
    };
    for (CMIDIEvent* e = port->first(); e; e = e->next)
        if (e->type == EventType::midi) e->midi = withSens(e->midi);

    const bool playing = engine->playing.load(std::memory_order_relaxed);
    const double rate = engine->sampleRate;
    const double bpm = engine->bpm.load(std::memory_order_relaxed);
    for (const CMIDIEvent* e = guiQueue->first(); e; e = e->next) {
        const uint32_t m = withSens(e->midi);
        int32_t delay = 0;
        auto at = static_cast<int32_t>(e->frame);
        if (isNoteOn(m) && autoq != -1 && autoq != 0 && playing && engine->sequencer && position != 0.0) {
            const int32_t grid = std::max(1, (960 / autoq) * 4);
            const auto pos = static_cast<int32_t>(position);
            const double back = pos - (pos % grid) - position;
            at = delay = static_cast<int32_t>(rate * (back + grid) / (bpm * 16.0));
        } else if (isNoteEnd(m)) {
            for (int32_t i = 0; i < delayedCount; ++i) {
                const uint32_t waiting = delayed[i].midi;
                if (isNoteOn(waiting) && (waiting & 0x0F) == (m & 0x0F) && delayed[i].frame > at) {
                    at = static_cast<int32_t>(rate * 120.0 / (bpm * 16.0)) + delayed[i].frame;
                    break;
                }
            }
        }
        if (delayedCount < maxDelayed) delayed[delayedCount++] = {m, at, delay};
    }
    guiQueue->reset();

    int32_t kept = 0;
    for (int32_t i = 0; i < delayedCount; ++i) {
        Delayed entry = delayed[i];
        if (entry.frame < frames) {
            port->addEvent(std::max(entry.frame, 0), entry.midi);
            continue;
        }
        entry.frame -= frames;
        delayed[kept++] = entry;
    }
    delayedCount = kept;
    if (playing) position += bpm * (frames * 16.0) / rate;
}

void CMIDIOut::createPorts() { addInputPort(); }

void CMIDIOut::process(int32_t frames) {
    CycleGuardScope scope(processGuard);
    if (scope.entered()) pullMIDI(frames);
}

void CGroupCh::createPorts() {
    addInputPort();
    addInputChannel();
    addOutputChannel();
}

void CGroupCh::processBlock(int32_t frames) {
    const CInputChannel* in = firstInputChannel();
    const COutputChannel* out = firstOutputChannel();
    if (!in || !out || !in->left() || !out->left()) return;
    std::copy_n(in->left(), frames, out->left());
    std::copy_n(in->right(), frames, out->right());
}

namespace {

template <class T>
CComp* create(CQV* engine) {
    return new T(engine);
}

std::array<CompCreator, 256>& creators() {
    static std::array<CompCreator, 256> table = [] {
        std::array<CompCreator, 256> t{};
        t[compGroupChannel] = create<CGroupCh>;
        t[compMIDIIn] = create<CMIDIIn>;
        t[compMIDIOut] = create<CMIDIOut>;
        t[compAudioIn] = create<CAudioIn>;
        t[compAudioOut] = create<CAudioOut>;
        return t;
    }();
    return table;
}

}  // namespace

void registerCompType(uint8_t type, CompCreator creator) { creators()[type] = creator; }

CComp* createComp(CQV* engine, uint8_t type) {
    if (CompCreator creator = creators()[type]) return creator(engine);
    return new CComp(engine);
}

CMIDICable* makeMIDICable(CComp* destination, CIO* output, CIO* input) {
    return new CMIDICable(destination, output, input);
}

CAudioCable* makeAudioCable(CComp* destination, CIO* output, CIO* input) {
    return new CAudioCable(destination, output, input);
}
