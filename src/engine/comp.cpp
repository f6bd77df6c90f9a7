#include "engine/comp.h"

#include <algorithm>
#include <cmath>

#include "core/stream.h"
#include "engine/engine.h"
#include "platform/platform.h"

bool CMapProg::takeControl(CComp& /*owner*/, const CMIDIEvent& /*event*/) { return false; }

CSendsState::CSendsState(COutputChannel& channel) : channel(&channel) {
    for (int32_t k = 0; k < COutputChannel::maxSends; ++k) {
        levels[k] = channel.sends[k]->level.load(std::memory_order_relaxed);
        disabled[k] = channel.sends[k]->disabled.load(std::memory_order_relaxed);
    }
}

void CSendsState::restore() const {
    for (int32_t k = 0; k < COutputChannel::maxSends; ++k) {
        channel->sends[k]->level.store(levels[k], std::memory_order_relaxed);
        channel->sends[k]->disabled.store(disabled[k], std::memory_order_relaxed);
    }
}

void CComp::getSendsState(TList<CObject>& out) const {
    for (COutputChannel* channel : outputChannels) out.add(new CSendsState(*channel));
}

CComp::CComp(CQV* engine, int32_t type) : CObject(1, type), engine(engine) {}

CComp::~CComp() {
    mapPrograms.deleteAll();
    comps.deleteAll();
    programs.deleteAll();
    audioCablesIn.deleteAll();
    midiCablesIn.deleteAll();
    inputChannels.deleteAll();
    outputChannels.deleteAll();
    inputPorts.deleteAll();
    outputPorts.deleteAll();
}

void CComp::showEditor() {
    if (engine) engine->raise(change::showEditorPage);
}

void CComp::guiTick() {
    for (COutputChannel* channel : outputChannels)
        for (CComp* insert : channel->inserts) insert->guiTick();
    changeFlags.fetch_and(~change::mapWindow, std::memory_order_relaxed);
}

namespace {

void decay(Meter& meter) {
    float v = meter.load(std::memory_order_relaxed) - 0.05f;
    meter.store(v > 0.0f ? v : 0.0f, std::memory_order_relaxed);
}

}  // namespace

void CComp::decayMeters() {
    for (CInputChannel* channel : inputChannels) {
        decay(channel->peakLeft);
        decay(channel->peakRight);
    }
    for (COutputChannel* channel : outputChannels) {
        decay(channel->peakLeft);
        decay(channel->peakRight);
        for (CComp* insert : channel->inserts) {
            if (COutputChannel* first = insert->firstOutputChannel()) {
                decay(first->peakLeft);
                decay(first->peakRight);
            }
        }
    }
}

void CComp::beginCycle(int32_t frames) {
    processGuard.reset();
    stripGuard.reset();
    insertsGuard.reset();

    sequencer = nullptr;
    for (CMIDICable* cable : midiCablesIn) {
        if (cable->source->isSequencer()) {
            sequencer = cable->source;
            break;
        }
    }
    for (CInputChannel* channel : inputChannels) channel->buffer.clear(frames);
    for (COutputChannel* channel : outputChannels) {
        channel->buffer.clear(frames);
        if (isSequencer()) sequencer = this;
        for (CComp* insert : channel->inserts) {
            insert->orderClass = orderInsert;
            insert->parentChannel = channel;
            insert->sequencer = sequencer;
        }
    }
    for (CInputPort* port : inputPorts) port->reset();
    for (COutputPort* port : outputPorts) {
        port->reset();
        port->freezeItems = nullptr;
    }
}

void CComp::setBlockSize(int32_t frames) {
    blockFrames = frames;
    for (CInputChannel* channel : inputChannels) channel->allocate(frames);
    for (COutputChannel* channel : outputChannels) {
        channel->allocate(frames);
        for (CComp* insert : channel->inserts) insert->setBlockSize(frames);
    }
}

void CComp::setSampleRate(double rate) {
    for (COutputChannel* channel : outputChannels) {
        channel->setSampleRate(rate);
        for (CComp* insert : channel->inserts) insert->setSampleRate(rate);
    }
}

void CComp::pullMIDI(int32_t frames) {
    for (CMIDICable* cable : midiCablesIn) {
        cable->source->process(frames);
        if (!cable->passes()) continue;
        auto* from = static_cast<CMIDIQ*>(cable->output);
        auto* to = static_cast<CMIDIQ*>(cable->input);
        for (const CMIDIEvent* event = from->first(); event; event = event->next) {
            if (event->type == EventType::consumed) continue;
            if (event->isControlChange() && mapProgram >= 0) {
                CMapProg* map = mapPrograms.getAt(mapProgram);
                if (map && map->takeControl(*this, *event)) continue;
            }
            to->addEvent(*event);
        }
        if (panic.exchange(false, std::memory_order_relaxed)) {
            for (uint32_t channel = 0; channel < 16; ++channel)
                to->addEvent(static_cast<double>(channel), 0x7BB0 + channel);
        }
    }
}

void CComp::pullAudio(int32_t frames) {
    for (CAudioCable* cable : audioCablesIn) {
        CComp* source = cable->source;
        source->process(frames);
        source->processInserts(frames);
        source->processStrip(frames);
        if (!cable->passes()) continue;
        const COutputChannel* from = cable->outputChannel();
        const CInputChannel* to = cable->inputChannel();
        if (!from->left() || !to->left()) continue;
        for (int32_t i = 0; i < frames; ++i) to->left()[i] += from->left()[i];
        for (int32_t i = 0; i < frames; ++i) to->right()[i] += from->right()[i];
    }
}

void CComp::process(int32_t frames) {
    CycleGuardScope scope(processGuard);
    if (!scope.entered()) return;
    pullMIDI(frames);
    if (takesAudio()) pullAudio(frames);
    processBlock(frames);
}

StripContext CComp::stripContext(int32_t frames) const {
    StripContext context;
    context.frames = frames;
    context.soloExempt = subKind == compGroupChannel || subKind == compAudioOut;
    if (engine) {
        context.groups = std::min(engine->groupChannels.count(), COutputChannel::maxSends);
        context.metersOnly = engine->exclusive.load(std::memory_order_relaxed) == 1 && engine->renderAll;
        context.deferSends = engine->collectingSends.load(std::memory_order_relaxed);
    }
    return context;
}

void CComp::processStrip(int32_t frames) {
    CycleGuardScope scope(stripGuard);
    if (!scope.entered() || outputChannels.empty()) return;
    const StripContext context = stripContext(frames);
    const CInputPort* port = firstInputPort();
    // Send levels don't cut the block: the sends go out once a block, so a level set by an event holds for
    // the whole block in which it falls.
    for (const CMIDIEvent* event = port ? port->first() : nullptr; event; event = event->next) {
        if (event->type != EventType::param) continue;
        for (COutputChannel* channel : outputChannels)
            if (channel->ownsSend(event->target)) channel->applyParamEvent(event->target, event->param, event->value);
    }
    auto concerns = [this](const CMIDIEvent& event) {
        return std::any_of(outputChannels.begin(), outputChannels.end(),
                           [&event](const COutputChannel* channel) { return event.target == channel; });
    };
    auto runPiece = [this, &context](int32_t offset, int32_t n) {
        for (COutputChannel* channel : outputChannels) channel->runStripPiece(context, offset, n);
    };
    auto apply = [](const CMIDIEvent& event) {
        static_cast<COutputChannel*>(event.target)->applyParamEvent(event.target, event.param, event.value);
    };
    cutAtParamEvents(port, frames, concerns, runPiece, apply);
    for (COutputChannel* channel : outputChannels) channel->endStrip(context);
}

void CComp::runInsert(COutputChannel& channel, CComp& insert, int32_t frames) {
    CInputChannel* in = insert.firstInputChannel();
    COutputChannel* out = insert.firstOutputChannel();
    insert.beginCycle(frames);
    std::copy_n(channel.left(), frames, in->left());
    std::copy_n(channel.right(), frames, in->right());
    if (CInputPort* ownerPort = firstInputPort(); ownerPort && insert.firstInputPort()) {
        CInputPort* insertPort = insert.firstInputPort();
        for (const CMIDIEvent* event = ownerPort->first(); event; event = event->next) insertPort->addEvent(*event);
    }
    insert.process(frames);
    float wet = insert.wetLevel.load(std::memory_order_relaxed);
    if (wet < 1.0f) {
        float dry = 1.0f - wet;
        for (int32_t i = 0; i < frames; ++i) out->left()[i] = dry * in->left()[i] + wet * out->left()[i];
        for (int32_t i = 0; i < frames; ++i) out->right()[i] = dry * in->right()[i] + wet * out->right()[i];
    }
    out->meter(0, frames);
}

void CComp::processInserts(int32_t frames) {
    CycleGuardScope scope(insertsGuard);
    if (!scope.entered()) return;
    for (COutputChannel* channel : outputChannels) {
        if (!channel->left()) continue;
        channel->processFront(frames);
        COutputChannel* last = nullptr;
        for (CComp* insert : channel->inserts) {
            if (!insert->firstInputChannel() || !insert->firstOutputChannel()) continue;
            // Each insert takes what the previous one made.
            if (last) {
                std::copy_n(last->left(), frames, channel->left());
                std::copy_n(last->right(), frames, channel->right());
            }
            runInsert(*channel, *insert, frames);
            last = insert->firstOutputChannel();
        }
        if (last) {
            std::copy_n(last->left(), frames, channel->left());
            std::copy_n(last->right(), frames, channel->right());
        }
    }
}

CString CComp::channelLabel(const CIO* io) const {
    if (io == nullptr || static_cast<const CObject*>(io) == this) return getName();
    if (io->kind == 16 && io->subKind == 2) {
        if (outputChannels.count() == 1) return getName();
        return concat("Out ", intToString(outputChannels.indexOf(io) + 1));
    }
    if (io->kind == 16 && io->subKind == 1) return concat("In ", intToString(inputChannels.indexOf(io) + 1));
    return getName();
}

void CComp::setParam(int32_t index, float value) {
    if (index == paramPower) setPower(value >= 0.5f ? 1 : 0);
    else if (index == paramWetLevel) wetLevel.store(value, std::memory_order_relaxed);
}

CString CComp::getParamName(int32_t /*index*/) const { return "noname"; }

CString CComp::getParamDisplay(int32_t /*index*/) const { return CString(); }

float CComp::getParam(int32_t index) const {
    if (index == paramPower) return static_cast<float>(power.load(std::memory_order_relaxed));
    if (index == paramWetLevel) return wetLevel.load(std::memory_order_relaxed);
    return 0.0f;
}

void CComp::setProgram(int32_t index) {
    if (index == program || index < 0 || index >= programs.count()) return;
    program = index;
    raise(change::program);
}

void CComp::load(CStream& stream, int32_t end) { stream.seek(end, 0); }

CComp* CComp::copy() const {
    platform::debugLine("error: copy() missing in class");
    return nullptr;
}

CObject* CComp::getProgram(int32_t index) const {
    if (index == -1) index = program;
    return programs.getAt(index);
}

int32_t CComp::getAssignedControl(int32_t index) const {
    if (index < 0 || index >= maxAssignedControls) return -1;
    return assignedControls[index];
}

void CComp::setAssignedControl(int32_t index, int32_t value) {
    if (index < 0 || index >= maxAssignedControls) return;
    assignedControls[index] = value;
}

CInputPort* CComp::addInputPort() {
    auto* port = new CInputPort(this);
    inputPorts.add(port);
    return port;
}

COutputPort* CComp::addOutputPort() {
    auto* port = new COutputPort(this);
    outputPorts.add(port);
    return port;
}

CInputChannel* CComp::addInputChannel(int32_t channels) {
    auto* channel = new CInputChannel(this, channels);
    if (blockFrames > 0) channel->allocate(blockFrames);
    inputChannels.add(channel);
    return channel;
}

COutputChannel* CComp::addOutputChannel(int32_t channels) {
    auto* channel = new COutputChannel(this, channels);
    if (blockFrames > 0) channel->allocate(blockFrames);
    if (engine) channel->setSampleRate(engine->sampleRate);
    outputChannels.add(channel);
    return channel;
}
