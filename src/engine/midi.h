#pragma once
// The one event record of the graph and the per-port queue that carries it.
//
// Events of a cycle live inside the queue's own array, sorted by frame, so that a port never allocates.
// Equal frames keep their insertion order. A queue holds at most 511 events; more are dropped silently.
// Records move when an earlier event is inserted, so nobody holds an event pointer across addEvent.

#include <cstdint>

#include "engine/terminal.h"

class CList;

enum class EventType : uint8_t {
    midi = 0,
    param = 1,
    consumed = 255,  // skipped by every reader and not passed on
};

struct CMIDIEvent {
    double frame = 0.0;  // offset in the block; consumers that cut a block use floor(frame + 0.5)
    uint32_t midi = 0;   // status in bits 0-7, data 1 in bits 8-15, data 2 in bits 16-23
    EventType type = EventType::midi;
    float value = 0.0f;      // parameter value for param events
    int32_t param = 0;       // parameter index for param events (-1 power, -2 wet level)
    void* target = nullptr;  // object a param event is for: a component, an output channel or a send
    void* extra = nullptr;
    CMIDIEvent* next = nullptr;

    uint8_t status() const { return static_cast<uint8_t>(midi & 0xFF); }
    uint8_t data1() const { return static_cast<uint8_t>((midi >> 8) & 0xFF); }
    uint8_t data2() const { return static_cast<uint8_t>((midi >> 16) & 0xFF); }
    bool isControlChange() const { return type == EventType::midi && (midi & 0xF0) == 0xB0; }
};

constexpr uint32_t packMIDI(uint8_t status, uint8_t data1, uint8_t data2) {
    return uint32_t{status} | (uint32_t{data1} << 8) | (uint32_t{data2} << 16);
}

// Activity light of a port; the GUI decays it.
struct CMIDILed {
    float value = 0.0f;
    void decay() { value = value > 0.15f ? value - 0.15f : 0.0f; }
};

class CMIDIQ : public CIO {
public:
    static constexpr int32_t capacity = 512;
    static constexpr int32_t maxEvents = capacity - 1;

    explicit CMIDIQ(CComp* owner, int32_t subKind = 0) : CIO(owner, 8, subKind) {}

    // Inserts keeping frame order; an event with the frame of others goes behind them.
    void addEvent(double frame, uint32_t midi, EventType type = EventType::midi, float value = 0.0f,
                  int32_t param = 0, void* target = nullptr, void* extra = nullptr);
    // Appends without sorting, for producers that already emit in order.
    void appendEvent(double frame, uint32_t midi, EventType type = EventType::midi, float value = 0.0f,
                     int32_t param = 0, void* target = nullptr, void* extra = nullptr);
    void addEvent(const CMIDIEvent& event) {
        addEvent(event.frame, event.midi, event.type, event.value, event.param, event.target, event.extra);
    }
    CMIDIEvent* first() { return count > 0 ? &events[0] : nullptr; }
    const CMIDIEvent* first() const { return count > 0 ? &events[0] : nullptr; }
    void reset() { count = 0; }

    CMIDILed led;
    int32_t count = 0;
    CMIDIEvent events[capacity];
    CList* freezeItems = nullptr;  // on a track's output port: the track's freeze items, for receivers
};

class CInputPort : public CMIDIQ {
public:
    explicit CInputPort(CComp* owner) : CMIDIQ(owner, 10) {}
};

class COutputPort : public CMIDIQ {
public:
    explicit COutputPort(CComp* owner) : CMIDIQ(owner, 11) {}
};
