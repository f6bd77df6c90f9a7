#pragma once
// The components at the edges of the graph (hardware inputs and outputs) and the group channel.
// The audio callback writes CAudioIn's channel and CMIDIIn's port before the cycle, and reads
// CAudioOut's channel after it.

#include <memory>

#include "engine/comp.h"

class CAudioIn : public CComp {
public:
    explicit CAudioIn(CQV* engine) : CComp(engine, compAudioIn) { name = "Audio In"; }
    void createPorts() override;
    // The callback has already written the output channel.
    void process(int32_t frames) override;
    void load(CStream& stream, int32_t end) override;
    void save(CStream& stream) override;

    int32_t channels = 2;     // 1: deviceLeft feeds both sides
    int32_t deviceLeft = 0;   // indexes into the callback's input buffers
    int32_t deviceRight = 1;
};

class CAudioOut : public CComp {
public:
    explicit CAudioOut(CQV* engine) : CComp(engine, compAudioOut) { name = "Audio Out"; }
    void createPorts() override;
    void process(int32_t frames) override;
    void load(CStream& stream, int32_t end) override;
    void save(CStream& stream) override;

    int32_t channels = 2;     // 1: the average of both sides goes to deviceLeft
    int32_t deviceLeft = 0;   // indexes into the callback's output buffers
    int32_t deviceRight = 1;
};

// Hardware MIDI input. The audio callback puts the block's records on the output port at frame 0; notes
// from the on-screen keyboard wait in `delayed` for their frame (auto quantize, minimum length).
class CMIDIIn : public CComp {
public:
    static constexpr int32_t maxDelayed = 1024;

    explicit CMIDIIn(CQV* engine);
    void createPorts() override;
    void process(int32_t frames) override;
    void setPosition(double ticks) override { position = ticks; }
    void load(CStream& stream, int32_t end) override;
    void save(CStream& stream) override;

    // GUI thread: the on-screen keyboard.
    void keyEvent(int32_t key, bool down);
    // Velocity sensitivity: the lower end of the range lifted, 127 kept.
    int32_t applySens(int32_t velocity) const;

    struct Delayed {
        uint32_t midi;
        int32_t frame;
        int32_t frames;
    };

    int32_t heldKey = -1;
    int32_t showKeyboard = 1;
    int32_t keyboardHeight = -1;
    int32_t showParams = 1;
    std::unique_ptr<CMIDIQ> guiQueue;
    Delayed delayed[maxDelayed]{};
    int32_t delayedCount = 0;
    int32_t sens = 100;
    int32_t autoq = -1;   // -1 off, else a note division
    int32_t device = -1;  // -1 takes every input device
    double position = 0.0;
};

class CMIDIOut : public CComp {
public:
    explicit CMIDIOut(CQV* engine) : CComp(engine, compMIDIOut) { name = "MIDI Out"; }
    void createPorts() override;
    void process(int32_t frames) override;
    void load(CStream& stream, int32_t end) override;
    void save(CStream& stream) override;

    int32_t device = -1;
};

// A group bus: sends and cables sum into its input channel, which it copies to its output channel, whose
// strip then runs like any other. Its place in the engine's groupChannels is the index of the sends that
// reach it, so a project has at most COutputChannel::maxSends groups. Groups run on the audio thread after
// the ordinary components.
class CGroupCh : public CComp {
public:
    explicit CGroupCh(CQV* engine) : CComp(engine, compGroupChannel) { name = "Group"; }
    void createPorts() override;
    bool takesAudio() const override { return true; }
    void processBlock(int32_t frames) override;
};

// Component factory: the type numbers of the project format. Types whose classes live in higher
// subsystems are registered by them at start-up; an unknown type gives a plain component.
using CompCreator = CComp* (*)(CQV* engine);
void registerCompType(uint8_t type, CompCreator creator);
CComp* createComp(CQV* engine, uint8_t type);

// A new cable with its source taken from the output's owner. Adding or removing it is an undo item.
CMIDICable* makeMIDICable(CComp* destination, CIO* output, CIO* input);
CAudioCable* makeAudioCable(CComp* destination, CIO* output, CIO* input);
