#include "engine/engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include "engine/io.h"
#include "platform/platform.h"

namespace {

bool isAudioOut(const CComp* comp) { return comp->kind == 1 && comp->subKind == compAudioOut; }
bool isMIDIIn(const CComp* comp) { return comp->kind == 1 && comp->subKind == compMIDIIn; }
bool isMIDIOut(const CComp* comp) { return comp->kind == 1 && comp->subKind == compMIDIOut; }

constexpr uint32_t statusNibble(uint32_t midi) { return midi & 0xF0; }
constexpr float minRemoteTempo = 10.0f;
constexpr float maxRemoteTempo = 250.0f;
constexpr uint64_t modulationLearned = 0x4000001;
constexpr std::chrono::milliseconds guiTimerPeriod{40};

}  // namespace

CQV::CQV(EngineOptions options)
    : CComp(this, compEngine),
      isPreview(options.isPreview),
      deferred(std::make_unique<CDeferredQueue>()),
      click(std::make_unique<CClick>(this)) {
    name = "vantre";
    multicore = getOption("multicore", 1);
    workers = std::make_unique<CWorkerPool>(*this, options.processors, isPreview);
    blockSize = 0;
    setBlockSize(1024);
}

CQV::~CQV() {
    workers.reset();
    undoSteps.deleteAll();
    retiredSteps.deleteAll();
    groupChannels.deleteAll();
    removedCables.deleteAll();
    comps.deleteAll();
}

int32_t CQV::getOption(const char* /*key*/, int32_t fallback) const { return fallback; }

template <class Fn>
void CQV::forEachComponent(Fn fn) {
    for (CComp* comp : comps) fn(*comp);
    for (CComp* group : groupChannels) fn(*group);
}

void CQV::addComp(CComp* comp) {
    comp->setBlockSize(blockSize);
    comp->setSampleRate(sampleRate);
    comps.add(comp);
}

void CQV::addGroupChannel(CGroupCh* group) {
    group->setBlockSize(blockSize);
    group->setSampleRate(sampleRate);
    groupChannels.add(group);
}

void CQV::sweepDetachedCables() {
    for (CComp* comp : comps) {
        for (bool moved = true; moved;) {
            moved = false;
            for (CAudioCable* cable : comp->audioCablesIn) {
                if (!cable->passes()) {
                    CList::moveItem(removedCables, comp->audioCablesIn, cable, -1);
                    moved = true;
                    break;
                }
            }
        }
    }
    raise(0x1);
    cablesDetached.store(false, std::memory_order_relaxed);
}

void CQV::beginCycle(int32_t frames) {
    if (cablesDetached.load(std::memory_order_relaxed)) sweepDetachedCables();
    CComp::beginCycle(frames);

    bool anySolo = false;
    forEachComponent([&](CComp& comp) {
        for (COutputChannel* channel : comp.outputChannels)
            anySolo = anySolo || channel->solo.load(std::memory_order_relaxed) != 0;
    });
    sequencer = nullptr;
    mainOut = nullptr;
    for (CComp* comp : comps) {
        for (COutputChannel* channel : comp->outputChannels) channel->anySolo = anySolo ? 1 : 0;
        comp->orderClass = orderOrdinary;
        comp->beginCycle(frames);
        if (comp->isSequencer() && !sequencer) sequencer = comp;
        if (isAudioOut(comp)) mainOut = static_cast<CAudioOut*>(comp);
    }
    for (CGroupCh* group : groupChannels) {
        group->orderClass = orderGroup;
        for (COutputChannel* channel : group->outputChannels) channel->anySolo = 0;
        group->beginCycle(frames);
    }
}

bool CQV::runCycle(int32_t frames) {
    if (loading.load(std::memory_order_acquire) || exclusive.load(std::memory_order_acquire) == 1 || busy())
        return false;
    frames = std::clamp(frames, 1, blockSize);
    beginCycle(frames);
    process(frames);
    return true;
}

void CQV::process(int32_t frames) {
    if (workers->threadCount > 0 && !workers->pinned) {
        platform::pinCurrentThread(0);
        workers->pinned = true;
    }
    const bool countingIn = recording.load(std::memory_order_relaxed) && click->inCountIn();
    if (!countingIn) bpm.store(bpmTarget.load(std::memory_order_relaxed), std::memory_order_relaxed);

    bool acknowledgedExclusive = false;
    {
        CycleGuardScope scope(processGuard);
        if (!scope.entered()) return;
        if (changeFlags.load(std::memory_order_relaxed) & change::latency) {
            changeFlags.fetch_and(~change::latency, std::memory_order_relaxed);
            compensateLatency();
        }
        if (transportJumped.exchange(false, std::memory_order_relaxed)) cycleJumped = true;

        auto startIfRecordingWaits = [this](bool waitForNote) {
            if (recording.load(std::memory_order_relaxed) && !playing.load(std::memory_order_relaxed) &&
                !click->inCountIn() && (click->waitNote != 0) == waitForNote &&
                (!waitForNote || click->noteHeard != 0))
                start();
        };
        startIfRecordingWaits(false);
        incomingMIDI();
        startIfRecordingWaits(true);

        if (playing.load(std::memory_order_relaxed))
            beatTicks = static_cast<int32_t>(std::floor((sequencer ? sequencer->getPosition() : 0.0) + 0.5));

        runGraph(frames);
        for (CComp* comp : comps)
            if (comp->isSequencer() && !comp->processed()) comp->process(frames);

        deferred->drainFromAudio();

        if (exclusiveWanted.load(std::memory_order_acquire)) {
            exclusive.store(1, std::memory_order_release);
            acknowledgedExclusive = true;
        }

        if (preview && preview->isPlaying() && mainOut && mainOut->firstOutputChannel()) {
            if (playing.load(std::memory_order_relaxed) && preview->startDelay == -1) {
                double t = beatTicks;
                while (t >= 960.0) t -= 960.0;
                preview->startDelay = static_cast<int32_t>(sampleRate * (960.0 - t) / (bpm.load() * 16.0));
            }
            COutputChannel* out = mainOut->firstOutputChannel();
            preview->process(out->left(), out->right(), scratch[0].get(), scratch[1].get(), frames);
        }
        if (exclusive.load(std::memory_order_relaxed) == 0) click->process(frames, scratch[0].get(), scratch[1].get());
        cycleJumped = false;
        ++cycles;
    }
    // The job may only start once this cycle has left the graph, so the acknowledgement comes last.
    if (acknowledgedExclusive) exclusiveWanted.store(false, std::memory_order_release);
}

void CQV::sumAndPull(CAudioCable& cable, int32_t frames) {
    if (!cable.passes()) return;
    cable.source->process(frames);
    cable.source->processInserts(frames);
    cable.source->processStrip(frames);
    cable.sumAtOutput(frames);
}

namespace {

void deliverSendsOf(CQV& engine, const TList<CComp>& comps) {
    for (CComp* comp : comps) {
        for (COutputChannel* channel : comp->outputChannels) channel->deliverSends(engine);
        deliverSendsOf(engine, comp->comps);
    }
}

}  // namespace

void CQV::deliverSends() {
    collectingSends.store(false, std::memory_order_relaxed);
    if (groupChannels.empty()) return;
    deliverSendsOf(*this, comps);
    // A group pulled through an ordinary component ran in this phase too.
    for (CGroupCh* group : groupChannels)
        for (COutputChannel* channel : group->outputChannels) channel->deliverSends(*this);
}

void CQV::runGraph(int32_t frames) {
    collectingSends.store(true, std::memory_order_relaxed);
    if (multicore && workers->threadCount > 0) {
        for (CComp* comp : comps) {
            if (comp->isSequencer() && !comp->processed()) {
                comp->process(frames);
                comp->processInserts(frames);
            }
        }
        int32_t itemCount = 0;
        for (CComp* out : comps) {
            if (!isAudioOut(out)) continue;
            for (CAudioCable* cable : out->audioCablesIn) {
                CComp* source = cable->source;
                if (source->orderClass != orderOrdinary || source->isSequencer()) continue;
                bool known = std::any_of(workers->items, workers->items + itemCount,
                                         [source](const CAudioCable* c) { return c->source == source; });
                if (!known && itemCount < CWorkerPool::maxItems) workers->items[itemCount++] = cable;
            }
        }
        workers->run(itemCount, frames);
        for (CComp* out : comps) {
            if (!isAudioOut(out)) continue;
            for (CAudioCable* cable : out->audioCablesIn) {
                if (cable->source->orderClass != orderOrdinary || !cable->passes()) continue;
                cable->source->processStrip(frames);
                cable->sumAtOutput(frames);
            }
        }
    } else {
        for (CComp* out : comps) {
            if (!isAudioOut(out)) continue;
            for (CAudioCable* cable : out->audioCablesIn)
                if (cable->source->orderClass == orderOrdinary) sumAndPull(*cable, frames);
        }
    }
    deliverSends();
    for (CComp* out : comps) {
        if (!isAudioOut(out)) continue;
        for (CAudioCable* cable : out->audioCablesIn)
            if (cable->source->orderClass == orderGroup) sumAndPull(*cable, frames);
    }

    for (CComp* comp : comps) {
        if (isMIDIOut(comp)) {
            comp->process(frames);
        } else if (isAudioOut(comp)) {
            comp->process(frames);
            if (exclusive.load(std::memory_order_relaxed) == 0 || !renderAll) {
                comp->processInserts(frames);
                comp->processStrip(frames);
            }
        }
    }

    if (playing.load(std::memory_order_relaxed)) {
        framesPlayed.fetch_add(frames, std::memory_order_relaxed);
        position.store(position.load(std::memory_order_relaxed) +
                           bpm.load(std::memory_order_relaxed) * (frames * 16.0) / sampleRate,
                       std::memory_order_relaxed);
    }
}

void CQV::incomingMIDI() {
    for (ModSlot& slot : modSlots) slot.changed = false;
    midiControl = false;
    for (CComp* comp : comps) {
        if (!isMIDIIn(comp)) continue;
        COutputPort* port = comp->firstOutputPort();
        if (!port || port->count == 0) continue;
        midiLed.store(1.0f, std::memory_order_relaxed);
        for (CMIDIEvent* event = port->first(); event; event = event->next) {
            if (event->type != EventType::midi) continue;
            const uint32_t status = statusNibble(event->midi);
            if (recording.load(std::memory_order_relaxed) && !playing.load(std::memory_order_relaxed) &&
                click->waitNote) {
                if ((status == 0x90 && event->data2() == 0) || status == 0x80) click->noteHeard = 1;
            }
            if (status == 0xB0) {
                handleController(*event);
            } else if (status == 0xC0 && fileMapper) {
                fileMapper->programChange(event->data1());
            }
        }
    }
}

void CQV::handleController(CMIDIEvent& event) {
    const int32_t number = event.data1();
    const int32_t value = event.data2();
    lastController = number;
    for (int32_t i = 0; i < modSlotCount; ++i) {
        if (modSlots[i].cc == number) {
            modSlots[i].value = value;
            modSlots[i].changed = true;
            event.type = EventType::consumed;
            return;
        }
    }
    if (modLearning.load(std::memory_order_relaxed) && modSlotCount < maxModSlots) {
        modSlots[modSlotCount++] = ModSlot{true, number, value};
        raise(modulationLearned);
        event.type = EventType::consumed;
        return;
    }
    for (int32_t control = 0; control < transportControlCount; ++control) {
        int32_t assigned = transportCC[control].load(std::memory_order_relaxed);
        if (assigned == -2) {
            transportCC[control].store(number, std::memory_order_relaxed);
            transportLearned.store(true, std::memory_order_relaxed);
            continue;
        }
        if (assigned != number) continue;
        const bool isPlaying = playing.load(std::memory_order_relaxed);
        const bool isRecording = recording.load(std::memory_order_relaxed) != 0;
        switch (control) {
        case ccPlay:
            if (value != 0 && !isPlaying) start();
            break;
        case ccStop:
            if (value != 0 && isPlaying) stop();
            break;
        case ccRewind:
            if (value != 0) rewind();
            break;
        case ccRecord:
            if ((value != 0 && !isRecording) || (value == 0 && isRecording)) recording.store(isRecording ? 0 : 1);
            break;
        case ccTempo:
            bpmTarget.store(std::clamp(value * 2.0f, minRemoteTempo, maxRemoteTempo), std::memory_order_relaxed);
            break;
        default:
            break;
        }
    }
    if (CMapProg* map = mapPrograms.getAt(mapProgram); map && map->takeControl(*this, event))
        event.type = EventType::consumed;
}

namespace {

// Deep enough for any real chain; a loop in the graph stops here instead of recursing forever.
constexpr int32_t maxLatencyDepth = 512;

// Delay in frames from the sources to this output: the component's own, its live inserts', and the
// slowest path that feeds it. Switched-off and frozen components add nothing, nor does what feeds them.
int32_t latencyOf(const CComp& comp, const COutputChannel* output, int32_t depth = 0) {
    if (depth > maxLatencyDepth || comp.power.load(std::memory_order_relaxed) != 1 || comp.isFrozen()) return 0;
    int32_t latency = comp.getLatency();
    if (output) {
        for (const CComp* insert : output->inserts)
            if (insert->power.load(std::memory_order_relaxed) == 1) latency += insert->getLatency();
    }
    int32_t upstream = 0;
    for (const CAudioCable* cable : comp.audioCablesIn)
        upstream = std::max(upstream, latencyOf(*cable->source, cable->outputChannel(), depth + 1));
    return latency + upstream;
}

}  // namespace

void CQV::compensateLatency() {
    auto clampDelay = [](int32_t frames) { return std::clamp(frames, 0, ringMask); };
    int32_t groupMax = 0;
    for (CComp* out : comps) {
        if (!isAudioOut(out)) continue;
        for (CAudioCable* cable : out->audioCablesIn) {
            if (cable->source->orderClass != orderGroup) continue;
            cable->delay->latency = latencyOf(*cable->source, cable->outputChannel());
            groupMax = std::max(groupMax, cable->delay->latency);
        }
    }
    for (CComp* out : comps) {
        if (!isAudioOut(out)) continue;
        for (CAudioCable* cable : out->audioCablesIn) {
            if (cable->source->orderClass != orderGroup) continue;
            int32_t padding = clampDelay(groupMax - cable->delay->latency);
            if (padding != cable->delay->delayFrames) {
                cable->delay->delayFrames = padding;
                cable->delay->zeroRings();
            }
        }
    }
    groupMaxLatency = groupMax;

    int32_t mainMax = 0;
    for (CComp* out : comps) {
        if (!isAudioOut(out)) continue;
        for (CAudioCable* cable : out->audioCablesIn) {
            if (cable->source->orderClass != orderOrdinary) continue;
            int32_t latency = latencyOf(*cable->source, cable->outputChannel());
            cable->outputChannel()->latency = latency;
            cable->delay->latency = latency;
            mainMax = std::max(mainMax, latency);
        }
    }
    for (CComp* out : comps) {
        if (!isAudioOut(out)) continue;
        for (CAudioCable* cable : out->audioCablesIn) {
            if (cable->source->orderClass != orderOrdinary) continue;
            COutputChannel* channel = cable->outputChannel();
            int32_t sendPadding = clampDelay(mainMax - channel->latency);
            if (sendPadding != channel->sendDelay) {
                channel->sendDelay = sendPadding;
                channel->zeroDelayRings();
            }
            int32_t padding = clampDelay(mainMax - cable->delay->latency + groupMax);
            if (padding != cable->delay->delayFrames) {
                cable->delay->delayFrames = padding;
                cable->delay->zeroRings();
            }
        }
    }
    mainMaxLatency = mainMax;
}

void CQV::start() {
    if (playing.load(std::memory_order_relaxed)) return;
    startTime = platform::milliseconds();
    CComp* seq = sequencer;
    for (CComp* comp : comps)
        if (!seq && comp->isSequencer()) seq = comp;
    startTicks = static_cast<int32_t>(std::floor((seq ? seq->getPosition() : 0.0) + 0.5));
    playing.store(true, std::memory_order_relaxed);
    transportJumped.store(true, std::memory_order_relaxed);
    for (CComp* comp : comps) comp->start();
    raise(change::transport);
}

void CQV::stop() {
    if (!playing.load(std::memory_order_relaxed)) {
        for (CComp* comp : comps) comp->panic.store(true, std::memory_order_relaxed);
    } else {
        playing.store(false, std::memory_order_relaxed);
        transportJumped.store(true, std::memory_order_relaxed);
        for (CComp* comp : comps) comp->stop();
    }
    recording.store(0, std::memory_order_relaxed);
    click->countInFrames = 0;
    raise(change::transport);
}

void CQV::setPosition(double ticks) {
    if (recording.load(std::memory_order_relaxed)) return;
    ticks = std::max(ticks, 0.0);
    position.store(ticks, std::memory_order_relaxed);
    for (CComp* comp : comps) comp->setPosition(ticks);
    click->setPhase(ticks);
    if (ticks == 0.0) framesPlayed.store(0, std::memory_order_relaxed);
}

void CQV::rewind() {
    for (CComp* comp : comps) {
        if (comp->isSequencer()) {
            comp->rewind();
            return;
        }
    }
    setPosition(0.0);
}

void CQV::setLoop(bool on) {
    if ((loop != 0) == on) return;
    loop = on ? 1 : 0;
    for (CComp* comp : comps) comp->setLoop(on);
    raise(change::transport);
}

double CQV::getTime(int32_t mode) const { return mode == 1 ? position.load(std::memory_order_relaxed) : 0.0; }

void CQV::setBlockSize(int32_t frames) {
    frames = std::clamp(frames, 1, maxBlockFrames);
    if (frames == blockSize) return;
    blockSize = frames;
    for (auto& buffer : scratch) buffer = std::make_unique<float[]>(static_cast<size_t>(frames));
    sendScratch.allocate(frames);
    CComp::setBlockSize(frames);
    forEachComponent([frames](CComp& comp) { comp.setBlockSize(frames); });
}

void CQV::setSampleRate(double rate) {
    if (rate <= 0.0 || static_cast<float>(rate) == sampleRate) return;
    sampleRate = static_cast<float>(rate);
    sampleRateInv = 1.0f / sampleRate;
    framesPerMs = static_cast<int32_t>(std::floor(rate * 0.001 + 0.5));
    forEachComponent([rate](CComp& comp) { comp.setSampleRate(rate); });
}

void CQV::clear() {
    deleteStepsAbove(-1);
    undoIndex = -1;
    groupChannels.deleteAll();
    removedCables.deleteAll();
    comps.deleteAll();
    sequencer = nullptr;
    mainOut = nullptr;
    bpm = 120.0f;
    bpmTarget = 120.0f;
    timeSigNum = 4;
    timeSigDen = 4;
    position = 0.0;
    framesPlayed = 0;
}

void CQV::guiTick() {
    if (inTick_.exchange(true)) return;
    CComp::guiTick();

    if (recording.load(std::memory_order_relaxed) && !recordUndo) {
        recordUndo = new CUndo("Record", sequencer, 0);
    } else if (!recording.load(std::memory_order_relaxed) && recordUndo) {
        CUndo* step = recordUndo;
        recordUndo = nullptr;
        postUndo(step, false);
        for (CComp* comp : comps) comp->stopRecord();
    }

    if (!exclusiveWanted.load(std::memory_order_acquire) && exclusiveJob) {
        ExclusiveJob job = std::move(exclusiveJob);
        exclusiveJob = nullptr;
        job(*this);
        exclusive.store(0, std::memory_order_release);
    }

    forEachComponent([](CComp& comp) {
        comp.guiTick();
        comp.decayMeters();
    });
    float led = midiLed.load(std::memory_order_relaxed) - 0.33f;
    midiLed.store(led > 0.0f ? led : 0.0f, std::memory_order_relaxed);
    if (mainWindowTick) mainWindowTick();

    deferred->drainFromTick();
    deleteRetiredSteps();
    inTick_.store(false);
}

void CQV::discardStep(CUndo* step) {
    if (step->queued.load(std::memory_order_acquire) > 0) retiredSteps.add(step);
    else delete step;
}

void CQV::deleteStepsAbove(int32_t index) {
    while (undoSteps.count() > index + 1) {
        CUndo* step = undoSteps.getAt(undoSteps.count() - 1);
        undoSteps.removeAt(undoSteps.count() - 1);
        discardStep(step);
    }
}

void CQV::deleteRetiredSteps() {
    for (int32_t i = retiredSteps.count() - 1; i >= 0; --i) {
        CUndo* step = retiredSteps.getAt(i);
        if (step->queued.load(std::memory_order_acquire) > 0) continue;
        retiredSteps.removeAt(i);
        delete step;
    }
}

// Counting down is the last touch of the step, so that the GUI thread may delete it from then on.
template <void (CUndo::*Run)(CQV&)>
void CQV::runStep(void* step) {
    auto* undoStep = static_cast<CUndo*>(step);
    (undoStep->*Run)(*this);
    undoStep->queued.fetch_sub(1, std::memory_order_release);
}

bool CQV::queueStep(CDeferredAction action, CUndo* step) {
    step->queued.fetch_add(1, std::memory_order_relaxed);
    if (defer(action, step)) return true;
    step->queued.fetch_sub(1, std::memory_order_relaxed);
    return false;
}

void CQV::postUndo(CUndo* step, bool wait) {
    if (!step) return;
    if (!step->hasItems()) {
        editOpen.store(false, std::memory_order_relaxed);
        CComp* target = step->owner ? step->owner : this;
        target->raise(step->flags);
        delete step;
        return;
    }
    deleteRetiredSteps();
    modified = true;
    // A step posted again from the redo tail must not be deleted with that tail.
    if (undoSteps.indexOf(step) > undoIndex) undoSteps.remove(step);
    deleteStepsAbove(undoIndex);
    if (undoSteps.indexOf(step) < 0) undoSteps.add(step);
    if (!queueStep(CDeferredAction::of<&CQV::runStep<&CUndo::apply>>(this), step)) {
        // A step that never ran must not stay: undoing it would run its moves backwards. What it holds
        // (a new object) goes with it; words the caller already wrote keep their new values.
        undoSteps.remove(step);
        discardStep(step);
        editOpen.store(false, std::memory_order_relaxed);
        return;
    }
    undoIndex = undoSteps.indexOf(step);
    if (wait) {
        while (deferred->count() >= 1) {
            guiTick();
            if (deferred->count() >= 1) std::this_thread::sleep_for(guiTimerPeriod);
        }
    }
}

void CQV::undo() {
    if (recording.load(std::memory_order_relaxed)) return;
    CUndo* step = undoSteps.getAt(undoIndex);
    if (!step || !queueStep(CDeferredAction::of<&CQV::runStep<&CUndo::revert>>(this), step)) return;
    --undoIndex;
}

void CQV::redo() {
    if (recording.load(std::memory_order_relaxed)) return;
    CUndo* step = undoSteps.getAt(undoIndex + 1);
    if (!step || !queueStep(CDeferredAction::of<&CQV::runStep<&CUndo::reapply>>(this), step)) return;
    ++undoIndex;
}

void CQV::runExclusive(ExclusiveJob job) {
    if (exclusiveJob) return;
    exclusiveJob = std::move(job);
    exclusiveWanted.store(true, std::memory_order_release);
}
