#include "engine/io.h"

#include <algorithm>
#include <array>

#include "engine/engine.h"

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

void CMIDIIn::createPorts() { addOutputPort(); }

void CMIDIIn::process(int32_t /*frames*/) {
    CycleGuardScope scope(processGuard);
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
