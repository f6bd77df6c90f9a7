#pragma once
// CComp: a node of the modular graph. Everything that makes or routes sound is a component.
//
// How the graph runs:
//  - There is no sorted schedule. Each cycle the hardware outputs pull their cables; a component asked
//    for audio first pulls its own inputs (pullMIDI, pullAudio), then does its work.
//  - process, processInserts and processStrip each run once per cycle, guarded by per-cycle marks, so a
//    component feeding many cables runs once. A busy mark breaks loops: the component that closes a loop
//    contributes what it has at that moment.
//  - A cable belongs to its destination; nothing lists the cables leaving a component.
//  - Nothing in process, pullMIDI or pullAudio allocates or locks. Lists the cycle walks change only on
//    the audio thread (deferred undo steps) or while it is stopped.

#include <atomic>
#include <cstdint>

#include "core/list.h"
#include "core/object.h"
#include "engine/cable.h"
#include "engine/cycle_guard.h"
#include "engine/midi.h"
#include "engine/terminal.h"

class CQV;
class CStream;
class CUndoItem;

// Parameter numbers common to every component; the component's own start at 0.
constexpr int32_t paramPower = -1;
constexpr int32_t paramWetLevel = -2;

// Component type numbers; they double as the subKind and as the factory's type number.
enum CompType : int32_t {
    compPlain = 0,
    compEngine = 1,
    compPlugin = 2,
    compSampler = 3,
    compSequencer = 4,
    compTrack = 5,
    compEffect = 7,
    compGroupChannel = 9,
    compMIDIIn = 10,
    compMIDIOut = 11,
    compAudioIn = 12,
    compAudioOut = 13,
    compEditor = 14,
    compArpeggiator = 15,
};

// Where a component stands in the engine's order; written by the engine and by beginCycle.
enum OrderClass : int32_t {
    orderOrdinary = 1,
    orderGroup = 3,
    orderInsert = 4,
};

// changeFlags bits the engine itself uses; the other bits belong to the GUI.
namespace change {
constexpr uint64_t graph = 0x2;             // the component list changed
constexpr uint64_t audioSettings = 0x8;
constexpr uint64_t transport = 0x400;
constexpr uint64_t program = 0x800;
constexpr uint64_t showEditorPage = 0x8000;
constexpr uint64_t undoApplied = 0x10000;
constexpr uint64_t latency = 0x100000;
constexpr uint64_t mapWindow = 0x200000;
}  // namespace change

// Send settings of one output channel, kept by undo steps that change sends.
class CSendsState : public CObject {
public:
    explicit CSendsState(COutputChannel& channel);
    // Writes the kept settings back into the channel.
    void restore() const;

    COutputChannel* channel;
    float levels[COutputChannel::maxSends];
    bool disabled[COutputChannel::maxSends];
};

// A controller map of a component; the map subsystem fills it in. It may take a Control Change.
class CMapProg : public CObject {
public:
    // True when the map took the event (it then sends its own parameter event).
    virtual bool takeControl(CComp& owner, const CMIDIEvent& event);
};

class CComp : public CObject {
public:
    explicit CComp(CQV* engine, int32_t type = compPlain);
    ~CComp() override;

    virtual void showEditor();
    virtual void guiTick();
    virtual void decayMeters();
    virtual void start() {}
    virtual void startRecord() {}
    virtual void stopRecord() {}
    virtual void stop() {}
    virtual void setPosition(double /*ticks*/) {}
    virtual void rewind() {}
    virtual void beginCycle(int32_t frames);
    virtual void setBlockSize(int32_t frames);
    virtual void setSampleRate(double rate);
    virtual void clear() {}
    virtual void pullMIDI(int32_t frames);
    // The standard frame: busy and processed marks, pullMIDI, pullAudio when takesAudio, then work.
    virtual void process(int32_t frames);
    virtual void processStrip(int32_t frames);
    virtual void processInserts(int32_t frames);
    virtual void setPower(int32_t on) { power.store(on, std::memory_order_relaxed); }
    virtual void setSuspended(int32_t on) { suspended = on; }
    virtual CString channelLabel(const CIO* io) const;
    virtual int32_t getParamCount() const { return 0; }
    virtual void setParam(int32_t index, float value);
    virtual CString getParamName(int32_t index) const;
    virtual CString getParamDisplay(int32_t index) const;
    virtual float getParam(int32_t index) const;
    virtual void changed(uint32_t /*flags*/) {}
    virtual void undoApplied(CUndoItem* /*item*/, int32_t /*direction*/) {}
    virtual void setProgram(int32_t index);
    virtual int32_t getProgramCount() const { return programs.count(); }
    virtual void load(CStream& stream, int32_t end);
    virtual void save(CStream& /*stream*/) {}
    virtual void beforeSave() {}
    virtual void createPorts() {}
    virtual void createBasePorts() {}
    virtual double getLength() const { return 0.0; }
    virtual CComp* copy() const;
    virtual double getTime(int32_t /*mode*/) const { return 0.0; }
    virtual void setLoop(bool /*on*/) {}
    virtual bool getLoop() const { return false; }
    virtual void getLoopRange(int32_t& start, int32_t& end) const {
        start = 0;
        end = 960;
    }
    virtual void setLoopRange(int32_t /*start*/, int32_t /*end*/) {}
    virtual double getPosition() const { return 0.0; }
    virtual void getTimeSig(int32_t& numerator, int32_t& denominator) const {
        numerator = 4;
        denominator = 4;
    }
    virtual void auditionClip(CObject* /*clip*/, float /*gain*/) {}
    virtual void partChanged(CObject* /*part*/) {}
    virtual bool isFrozen() const { return false; }
    virtual void serviceDisk() {}
    virtual CString getProgramName(int32_t /*index*/) const { return CString(); }
    virtual void setProgramName(int32_t /*index*/, CString /*name*/) {}
    virtual int32_t getLatency() const { return 0; }
    virtual CComp* findTrack(const COutputChannel* /*channel*/) const { return nullptr; }
    virtual void recordParam(CObject* /*target*/, uint32_t /*param*/, float /*value*/) {}
    virtual int32_t loadProgram(CObject* /*item*/, uint32_t /*index*/, void* /*window*/, int8_t /*mode*/) { return 0; }
    // Appends, for each output channel, a snapshot of its send settings (owned by the list's owner).
    virtual void getSendsState(TList<CObject>& out) const;
    virtual CObject* getProgram(int32_t index) const;
    virtual int32_t getAssignedControl(int32_t index) const;
    virtual void setAssignedControl(int32_t index, int32_t value);
    virtual int32_t getAssignedControlCount() const { return maxAssignedControls; }
    virtual void addPlayingNotes(CMIDIQ& /*port*/) {}
    virtual void clearPreview() {}

    // The class's work inside the standard frame of process.
    virtual void processBlock(int32_t /*frames*/) {}
    // Components that sum incoming audio cables in process (effects, groups, sequencer, plug-ins).
    virtual bool takesAudio() const { return false; }

    void pullAudio(int32_t frames);
    // What the strips of this component need to know for a block of this many frames.
    StripContext stripContext(int32_t frames) const;
    bool isSequencer() const { return kind == 1 && subKind == compSequencer; }
    bool processed() const { return processGuard.done(); }
    bool busy() const { return processGuard.busy(); }
    void raise(uint64_t bits) { changeFlags.fetch_or(bits, std::memory_order_relaxed); }

    // Terminals are created by createPorts; these add one and keep the owner's lists in order.
    CInputPort* addInputPort();
    COutputPort* addOutputPort();
    CInputChannel* addInputChannel(int32_t channels = 2);
    COutputChannel* addOutputChannel(int32_t channels = 2);
    CInputPort* firstInputPort() const { return inputPorts.getAt(0); }
    COutputPort* firstOutputPort() const { return outputPorts.getAt(0); }
    CInputChannel* firstInputChannel() const { return inputChannels.getAt(0); }
    COutputChannel* firstOutputChannel() const { return outputChannels.getAt(0); }

    static constexpr int32_t maxAssignedControls = 8;

    CQV* engine;
    COutputChannel* parentChannel = nullptr;
    int32_t orderClass = orderOrdinary;
    TList<CComp> comps;  // children, owned
    int32_t program = 0;
    TList<CObject> programs;  // owned
    uint32_t programTime = 0;
    std::atomic<int32_t> power{1};
    int32_t suspended = 0;
    int32_t x = 32, y = 32, width = 32, height = 32;
    std::atomic<uint64_t> changeFlags{0};
    int32_t hideChs = 0;
    CComp* sequencer = nullptr;
    int32_t editorPlace[8] = {200, 200, 300, 300, 0, 0, -1, 0};
    int32_t mapPlace[9] = {200, 200, 384, 236, 0, 0, -1, 0, 0};
    TList<COutputChannel> outputChannels;
    TList<CInputChannel> inputChannels;
    TList<COutputPort> outputPorts;
    TList<CInputPort> inputPorts;
    CycleGuard processGuard;
    CycleGuard insertsGuard;
    CycleGuard stripGuard;
    TList<CAudioCable> audioCablesIn;  // owned
    TList<CMIDICable> midiCablesIn;    // owned
    std::atomic<float> wetLevel{1.0f};
    TList<CMapProg> mapPrograms;  // owned
    int32_t mapProgram = 0;
    std::atomic<bool> panic{false};
    int32_t assignedControls[maxAssignedControls] = {-1, -1, -1, -1, -1, -1, -1, -1};
    int32_t blockFrames = 0;  // size the channel buffers are allocated for

protected:
    // Runs one insert of a channel over the channel's audio: copy in, process, mix wet, meter.
    void runInsert(COutputChannel& channel, CComp& insert, int32_t frames);
};

// Cuts a block at the parameter events of a port that concern one object, so that each change takes
// effect exactly at floor(frame + 0.5). processRange(offset, frames) renders a piece; apply(event) takes
// the change. A change is applied once, at the frame where it falls.
template <class Concerns, class ProcessRange, class Apply>
void cutAtParamEvents(const CMIDIQ* port, int32_t frames, Concerns concerns, ProcessRange processRange, Apply apply) {
    int32_t done = 0;
    for (const CMIDIEvent* event = port ? port->first() : nullptr; event; event = event->next) {
        if (event->type != EventType::param || !concerns(*event)) continue;
        int32_t at = static_cast<int32_t>(event->frame + 0.5 >= 0.0 ? event->frame + 0.5 : 0.0);
        if (at > frames) at = frames;
        if (at - done > 0) {
            processRange(done, at - done);
            done = at;
        }
        apply(*event);
    }
    if (frames - done > 0) processRange(done, frames - done);
}
