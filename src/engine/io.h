#pragma once
// The components at the edges of the graph (hardware inputs and outputs) and the group channel.
// The audio callback writes CAudioIn's channel and CMIDIIn's port before the cycle, and reads
// CAudioOut's channel after it.

#include "engine/comp.h"

class CAudioIn : public CComp {
public:
    explicit CAudioIn(CQV* engine) : CComp(engine, compAudioIn) {}
    void createPorts() override;
    // The callback has already written the output channel.
    void process(int32_t frames) override;
};

class CAudioOut : public CComp {
public:
    explicit CAudioOut(CQV* engine) : CComp(engine, compAudioOut) {}
    void createPorts() override;
    void process(int32_t frames) override;
};

class CMIDIIn : public CComp {
public:
    explicit CMIDIIn(CQV* engine) : CComp(engine, compMIDIIn) {}
    void createPorts() override;
    void process(int32_t frames) override;
};

class CMIDIOut : public CComp {
public:
    explicit CMIDIOut(CQV* engine) : CComp(engine, compMIDIOut) {}
    void createPorts() override;
    void process(int32_t frames) override;
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
