#include "fx/mixer.h"

#include <algorithm>
#include <utility>

#include "core/stream.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "engine/undo.h"

namespace {

// Bit 0x1 of the mixer's changeFlags makes the mixer window build its strips anew.
constexpr uint32_t rebuildStrips = 0x1;
constexpr int32_t mixParamBytes = 16;

CAudioOut* firstAudioOut(const CQV& engine) {
    for (CComp* comp : engine.comps)
        if (comp->subKind == compAudioOut) return static_cast<CAudioOut*>(comp);
    return nullptr;
}

}  // namespace

CMixProg::CMixProg(CString programName) { name = std::move(programName); }

CMixer::CMixer(CQV* engine) : CComp(engine, compPlain) {}

void CMixer::clear() {
    programs.deleteAll();
    program = 0;
    view = 0;
}

void CMixer::save(CStream& stream) {
    writeBlockHeader(stream, "mxv", 4);
    stream.writeI32(view);
    writeBlockHeader(stream, "progi", 4);
    stream.writeI32(program);
    for (const CObject* item : programs) {
        const auto* saved = static_cast<const CMixProg*>(item);
        writeBlockHeader(stream, "prog", 4 + static_cast<uint32_t>(std::max(saved->name.length(), 0)));
        writeString(stream, saved->name);
        writeBlockHeader(stream, "sh", 4);
        stream.writeI32(saved->show);
    }
}

void CMixer::load(CStream& stream, int32_t end) {
    clear();
    CMixProg* latest = nullptr;
    CBlockReader blocks(stream, end);
    while (blocks.next()) {
        if (blocks.is("mxv")) {
            stream.readI32(view);
        } else if (blocks.is("progi")) {
            stream.readI32(program);
        } else if (blocks.is("prog")) {
            CString text;
            readString(stream, text);
            latest = new CMixProg(std::move(text));
            programs.add(latest);
        } else if (blocks.is("sh") && latest) {
            stream.readI32(latest->show);
        } else {
            blocks.skip();
        }
    }
    raise(change::program);
}

CString CMixer::getProgramName(int32_t index) const {
    const CMixProg* found = mixProgram(index);
    return found ? found->name : CString();
}

void CMixer::setProgramName(int32_t index, CString text) {
    if (CMixProg* found = mixProgram(index)) found->name = std::move(text);
}

CMixProg* CMixer::mixProgram(int32_t index) const { return static_cast<CMixProg*>(getProgram(index)); }

CMixProg* CMixer::addProgram() {
    auto* added = new CMixProg(concat("Program ", intToString(programs.count() + 1)));
    programs.add(added);
    return added;
}

bool CMixer::addGroup(bool wait) {
    if (!engine || engine->groupChannels.count() >= COutputChannel::maxSends) return false;
    // Made whole here on the GUI thread; the step only links it in at the end of a cycle.
    auto* group = new CGroupCh(engine);
    group->createPorts();
    group->setBlockSize(engine->blockSize);
    group->setSampleRate(engine->sampleRate);
    CUndo* step = beginUndo(*engine, "Add Group", this, rebuildStrips);
    insertItem(*step, group, engine->groupChannels, -1);
    if (CAudioOut* out = firstAudioOut(*engine); out && out->firstInputChannel()) {
        CAudioCable* cable = makeAudioCable(out, group->firstOutputChannel(), out->firstInputChannel());
        insertItem(*step, cable, out->audioCablesIn, -1);
    }
    const int32_t before = engine->undoIndex;
    engine->postUndo(step, wait);
    // A step the full queue refused is gone, and the group with it.
    return engine->undoIndex != before;
}

void saveMixParams(const TList<CMixerParam>& params, CStream& stream) {
    if (params.empty()) return;
    writeBlockHeader(stream, "mixparams", 0);
    stream.writeI32(params.count());
    for (const CMixerParam* param : params) {
        stream.writeI32(0);
        stream.writeI32(param->index);
        stream.writeI32(0);
        stream.writeI32(0);
    }
}

void loadMixParams(TList<CMixerParam>& params, CComp* owner, CStream& stream) {
    int32_t count = 0;
    if (!stream.readI32(count)) return;
    // Never more entries than the stream still holds, whatever the count says.
    const int64_t left = static_cast<int64_t>(stream.getSize()) - stream.tell();
    count = static_cast<int32_t>(std::clamp<int64_t>(count, 0, std::max<int64_t>(left, 0) / mixParamBytes));
    for (int32_t i = 0; i < count; ++i) {
        int32_t words[4] = {};
        for (int32_t& word : words) stream.readI32(word);
        params.add(new CMixerParam(owner, words[1]));
    }
}
