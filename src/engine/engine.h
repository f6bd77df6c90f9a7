#pragma once
// CQV: the root component. It owns every other component, holds position and tempo, runs one cycle each
// time the audio device asks for a block, and spreads the work over processors.
//
// Changing the model while it plays follows one rule: structural edits are undo steps built on the GUI
// thread and applied at the end of a cycle on the audio thread (or by the GUI tick when no audio runs);
// long jobs take exclusive access, which keeps the callback out; single aligned words (parameters,
// flags) are written directly.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "engine/click.h"
#include "engine/comp.h"
#include "engine/deferred.h"
#include "engine/preview.h"
#include "engine/undo.h"
#include "engine/workers.h"

class CAudioOut;
class CGroupCh;

struct ModSlot {
    bool changed = false;
    int32_t cc = -1;
    int32_t value = 0;
};

// Receives Program Change messages for the file mapper while its window is open.
class CProgramChangeListener {
public:
    virtual ~CProgramChangeListener() = default;
    virtual void programChange(int32_t program) = 0;
};

enum TransportControl : int32_t { ccPlay = 0, ccStop, ccRewind, ccRecord, ccTempo, transportControlCount };

// A job that needs the audio thread out of the way (render, freeze); it runs on the GUI thread.
using ExclusiveJob = std::function<void(CQV&)>;

struct EngineOptions {
    bool isPreview = false;
    int32_t processors = 0;  // 0: this machine's logical processors
};

class CQV : public CComp {
public:
    static constexpr int32_t maxModSlots = 16;

    explicit CQV(EngineOptions options = {});
    ~CQV() override;

    // The audio callback: beginCycle, then process.
    void beginCycle(int32_t frames) override;
    void process(int32_t frames) override;
    // The whole device-side cycle as a callback runs it: silent while loading or exclusive.
    // Returns false when the cycle stayed out.
    bool runCycle(int32_t frames);

    void start() override;
    void stop() override;
    void setPosition(double ticks) override;
    void rewind() override;
    void setLoop(bool on) override;
    bool getLoop() const override { return loop != 0; }
    void setBlockSize(int32_t frames) override;
    void setSampleRate(double rate) override;
    void clear() override;
    double getTime(int32_t mode) const override;
    void guiTick() override;

    // Settings are read through here; until a settings file is attached, every option has its default.
    int32_t getOption(const char* key, int32_t fallback) const;

    // GUI thread. False when the queue was full.
    bool defer(CDeferredAction action, void* argument) { return deferred->defer(action, argument); }
    // Takes the step. It is applied through the deferred queue; with wait, the GUI timers are pumped
    // until the queue is empty. A step with no items only raises its flags on its owner.
    void postUndo(CUndo* step, bool wait);
    // Queue the reverse (undo) or the repeat (redo) of a step like postUndo; refused while recording.
    void undo();
    void redo();
    bool canUndo() const { return undoIndex >= 0; }
    bool canRedo() const { return undoIndex + 1 < undoSteps.count(); }
    void runExclusive(ExclusiveJob job);

    void addComp(CComp* comp);
    void addGroupChannel(CGroupCh* group);

    // Set by whoever installs a main window; called at the end of each GUI tick of the engine.
    std::function<void()> mainWindowTick;

    int32_t multicore = 0;
    std::atomic<bool> exclusiveWanted{false};
    const bool isPreview;
    ExclusiveJob exclusiveJob;
    std::atomic<float> midiLed{0.0f};
    std::atomic<bool> loading{false};
    std::atomic<double> position{0.0};
    std::atomic<float> bpm{120.0f};
    std::atomic<float> bpmTarget{120.0f};
    std::atomic<bool> playing{false};
    std::atomic<int32_t> recording{0};
    std::atomic<int32_t> exclusive{0};
    std::atomic<int64_t> framesPlayed{0};
    bool modified = false;
    std::atomic<bool> transportJumped{false};
    bool cycleJumped = false;
    bool renderAll = false;
    std::unique_ptr<float[]> scratch[4];
    // One channel's sends on their way to the groups, one block long.
    StereoBuffer sendScratch;
    // While the ordinary components run (on workers too), strips leave their sends for deliverSends.
    std::atomic<bool> collectingSends{false};
    int32_t recBits = 16;
    int32_t blockSize = 1024;
    int32_t recLatency = 0;
    float sampleRate = 44100.0f;
    float sampleRateInv = 1.0f / 44100.0f;
    int32_t framesPerMs = 44;
    CComp* sequencer = nullptr;
    TList<CUndo> undoSteps;  // owned
    // Steps cut off from the history while runs of them still waited in the queue; deleted once they ran.
    TList<CUndo> retiredSteps;  // owned
    CUndo* recordUndo = nullptr;
    // A step is being built (beginUndo); cleared when a step is applied or an empty one posted.
    std::atomic<bool> editOpen{false};
    int32_t timeSigNum = 4, timeSigDen = 4;
    ModSlot modSlots[maxModSlots];
    int32_t modSlotCount = 0;
    std::atomic<bool> modLearning{false};
    int32_t lastController = -1;
    bool midiControl = false;
    int32_t undoIndex = -1;
    std::atomic<int32_t> transportCC[transportControlCount] = {-1, -1, -1, -1, -1};
    std::atomic<bool> transportLearned{false};
    std::unique_ptr<CDeferredQueue> deferred;
    TList<CGroupCh> groupChannels;  // owned
    CString projectPath;
    // The project's audio folder, relative to the project's own folder; empty until one is needed.
    CString audioDir;
    int32_t loopStart = 0, loopEnd = 3840;
    int32_t loop = 1;
    std::unique_ptr<CClick> click;
    CAudioOut* mainOut = nullptr;
    CBrowserPreview* preview = nullptr;
    float monitorGain = 1.0f;
    TList<CAudioCable> removedCables;  // owned; swept out of the graph at the top of a cycle
    std::atomic<bool> cablesDetached{false};
    std::unique_ptr<CWorkerPool> workers;
    CProgramChangeListener* fileMapper = nullptr;
    uint32_t startTime = 0;
    int32_t startTicks = 0;
    int32_t beatTicks = 0;
    int32_t groupMaxLatency = 0;
    int32_t mainMaxLatency = 0;
    uint64_t cycles = 0;

private:
    void sweepDetachedCables();
    void incomingMIDI();
    void handleController(CMIDIEvent& event);
    void runGraph(int32_t frames);
    void sumAndPull(CAudioCable& cable, int32_t frames);
    // Adds the sends the ordinary components left into the groups, in the order of the component list, so
    // that the sums come out the same whichever thread ran which strip.
    void deliverSends();
    void compensateLatency();
    template <void (CUndo::*Run)(CQV&)>
    void runStep(void* step);
    bool queueStep(CDeferredAction action, CUndo* step);
    void deleteStepsAbove(int32_t index);
    void discardStep(CUndo* step);
    void deleteRetiredSteps();
    template <class Fn>
    void forEachComponent(Fn fn);

    std::atomic<bool> inTick_{false};
};

// Ticks per frame at a tempo: 960 ticks a quarter note, so bpm * 16 ticks a second.
constexpr double ticksPerFrame(double bpm, double sampleRate) { return bpm * 16.0 / sampleRate; }
