#include "fx/effect.h"

#include <algorithm>
#include <cmath>

#include "core/stream.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "fx/reverb.h"

namespace {

// An "fx" block: subKind, enabled, dry, wet and the kind's 16 words.
constexpr uint32_t fxBlockSize = 16 + FXWords::count * 4;
// A "prog" block holds eight words of 0 behind the name.
constexpr int32_t progReservedWords = 8;

}  // namespace

CEffectProg::CEffectProg() { name = "effect"; }

CEffectProg::~CEffectProg() { effects.deleteAll(); }

CEffect::CEffect(CQV* engine) : CComp(engine, compEffect) { name = "Multi Effect"; }

void CEffect::createPorts() {
    addInputPort();
    addInputChannel(2);
    addOutputChannel(2);
    programs.add(new CEffectProg);
}

void CEffect::setBlockSize(int32_t frames) {
    CComp::setBlockSize(frames);
    scratchL_.reset();
    scratchR_.reset();
    scratchFrames_ = 0;
    if (frames > 0) {
        scratchL_ = std::make_unique<float[]>(static_cast<size_t>(frames));
        scratchR_ = std::make_unique<float[]>(static_cast<size_t>(frames));
        scratchFrames_ = frames;
    }
    for (CObject* program : programs)
        for (CFX* fx : static_cast<CEffectProg*>(program)->effects) fx->setBlockSize(frames);
}

void CEffect::setSampleRate(double rate) {
    CComp::setSampleRate(rate);
    sampleRate_ = static_cast<float>(rate);
    for (CObject* program : programs)
        for (CFX* fx : static_cast<CEffectProg*>(program)->effects) fx->setSampleRate(sampleRate_);
}

CEffectProg* CEffect::effectProgram(int32_t index) const {
    // Every program of this component is a CEffectProg: createPorts, load and copy make nothing else.
    return static_cast<CEffectProg*>(getProgram(index));
}

void CEffect::processBlock(int32_t frames) {
    const CComp* self = this;
    cutAtParamEvents(
        firstInputPort(), frames, [self](const CMIDIEvent& event) { return event.target == self; },
        [this](int32_t offset, int32_t n) { render(offset, n); }, [this](const CMIDIEvent& event) { applyEvent(event); });
}

void CEffect::applyEvent(const CMIDIEvent& event) {
    if (event.param == paramPower) {
        const double rounded = std::floor(static_cast<double>(event.value) + 0.5);
        setPower(rounded >= 1.0 ? 1 : 0);
    } else if (event.param == paramWetLevel) {
        wetLevel.store(std::clamp(event.value, 0.0f, 1.0f), std::memory_order_relaxed);
    }
}

void CEffect::render(int32_t offset, int32_t frames) {
    // The scratch and the channels are one block long; without a block size there is nothing to render.
    if (offset + frames > scratchFrames_) return;
    const CInputChannel* in = firstInputChannel();
    COutputChannel* out = firstOutputChannel();
    // A damaged project can leave an effect without a channel; like any component, it then plays nothing.
    if (!in || !out || !in->left() || !out->left()) return;
    const float* inL = in->left() + offset;
    const float* inR = in->right() + offset;
    float* outL = out->left() + offset;
    float* outR = out->right() + offset;
    if (power.load(std::memory_order_relaxed) != 1) {
        std::copy_n(inL, frames, outL);
        std::copy_n(inR, frames, outR);
        return;
    }
    const CEffectProg* prog = effectProgram(program);
    if (!prog) return;

    float* scratchL = scratchL_.get();
    float* scratchR = scratchR_.get();
    std::fill_n(scratchL, frames, 0.0f);
    std::fill_n(scratchR, frames, 0.0f);
    bool any = false;
    for (CFX* fx : prog->effects) {
        if (!fx->enabled) continue;
        if (engine) fx->tempo = engine->bpm.load(std::memory_order_relaxed);
        if (any) fx->process(scratchL, scratchR, scratchL, scratchR, frames);
        else fx->process(inL, inR, scratchL, scratchR, frames);
        any = true;
    }
    std::copy_n(any ? scratchL : inL, frames, outL);
    std::copy_n(any ? scratchR : inR, frames, outR);
}

void CEffect::setParam(int32_t index, float value) {
    if (index == paramPower) setPower(value > 0.0f ? 1 : 0);
    else if (index == paramWetLevel) wetLevel.store(std::clamp(value, 0.0f, 1.0f), std::memory_order_relaxed);
}

CString CEffect::getParamName(int32_t index) const {
    if (index == paramPower) return "Power";
    if (index == paramWetLevel) return "Wet level";
    return CComp::getParamName(index);
}

CString CEffect::getParamDisplay(int32_t index) const {
    if (index == paramPower) return power.load(std::memory_order_relaxed) == 1 ? "On" : "Off";
    if (index == paramWetLevel) {
        const double wet = wetLevel.load(std::memory_order_relaxed);
        return intToString(static_cast<int32_t>(std::floor(wet * 100.0 + 0.5))) + "%";
    }
    return CComp::getParamDisplay(index);
}

CString CEffect::getProgramName(int32_t index) const {
    const CEffectProg* prog = effectProgram(index);
    return prog ? prog->getName() : CString();
}

void CEffect::setProgramName(int32_t index, CString newName) {
    if (CEffectProg* prog = effectProgram(index)) prog->setName(std::move(newName));
}

int32_t CEffect::effectBlockSize() const { return engine ? engine->blockSize : blockFrames; }

float CEffect::effectSampleRate() const { return engine ? engine->sampleRate : sampleRate_; }

void CEffect::save(CStream& stream) { writeBlocks(stream); }

void CEffect::writeBlocks(CStream& stream) const {
    writeBlockHeader(stream, "progi", 4);
    stream.writeI32(program);
    for (CObject* object : programs) {
        const auto* prog = static_cast<const CEffectProg*>(object);
        const CString progName = prog->getName();
        writeBlockHeader(stream, "prog", static_cast<uint32_t>(std::max(progName.length(), 0) + 4 + 4 * progReservedWords));
        writeString(stream, progName);
        for (int32_t k = 0; k < progReservedWords; ++k) stream.writeI32(0);

        for (const CFX* fx : prog->effects) {
            FXWords words;
            fx->saveWords(words);
            writeBlockHeader(stream, "fx", fxBlockSize);
            stream.writeI32(fx->subKind);
            stream.writeI32(fx->enabled);
            stream.writeF32(fx->dry);
            stream.writeF32(fx->wet);
            for (uint32_t word : words.word) stream.writeU32(word);
            if (fx->subKind == fxReverb) {
                writeBlockHeader(stream, "reverbSize", 4);
                stream.writeI32(static_cast<const CReverb*>(fx)->size);
            }
        }
    }
}

void CEffect::load(CStream& stream, int32_t end) {
    CEffectProg* prog = nullptr;  // the program the next effects belong to
    CFX* last = nullptr;          // the effect a following "reverbSize" is for
    CBlockReader blocks(stream, end);
    while (blocks.next()) {
        if (blocks.is("progi")) {
            stream.readI32(program);
        } else if (blocks.is("prog")) {
            CString progName;
            readString(stream, progName);
            prog = new CEffectProg;
            prog->setName(std::move(progName));
            programs.add(prog);
            last = nullptr;
            blocks.skip();
        } else if (blocks.is("fx")) {
            last = prog && blocks.size() >= fxBlockSize ? readEffect(stream) : nullptr;
            if (last) prog->effects.add(last);
            blocks.skip();
        } else if (blocks.is("reverbSize") && last && last->subKind == fxReverb) {
            int32_t ms = 0;
            if (stream.readI32(ms)) static_cast<CReverb*>(last)->setSizeMs(ms);
        } else {
            blocks.skip();
        }
    }
}

CFX* CEffect::readEffect(CStream& stream) const {
    int32_t kind = fxUnknown, enabled = 0;
    float dry = 1.0f, wet = 1.0f;
    stream.readI32(kind);
    stream.readI32(enabled);
    stream.readF32(dry);
    stream.readF32(wet);
    CFX* fx = createFX(kind);
    fx->setBlockSize(effectBlockSize());
    fx->setSampleRate(effectSampleRate());
    fx->setEnabled(enabled != 0);
    fx->dry = dry;
    fx->wet = wet;
    // An unknown kind keeps nothing of its words; the caller skips them with the rest of the block.
    if (fx->subKind != fxUnknown) {
        FXWords words;
        for (uint32_t& word : words.word) stream.readU32(word);
        fx->loadWords(words);
    }
    return fx;
}

CComp* CEffect::copy() const {
    auto* twin = new CEffect(engine);
    twin->addInputPort();
    twin->addInputChannel(2);
    twin->addOutputChannel(2);
    twin->name = name;
    twin->power.store(power.load(std::memory_order_relaxed), std::memory_order_relaxed);
    twin->wetLevel.store(wetLevel.load(std::memory_order_relaxed), std::memory_order_relaxed);
    twin->x = x;
    twin->y = y;
    twin->width = width;
    twin->height = height;
    twin->sampleRate_ = sampleRate_;
    if (blockFrames > 0) twin->setBlockSize(blockFrames);
    // The programs travel through their saved form, which every effect kind already knows.
    CMemoryStream state;
    writeBlocks(state);
    state.seek(0, seekFromStart);
    twin->load(state, state.getSize());
    return twin;
}

void registerEffectComponents() {
    registerCompType(compEffect, [](CQV* engine) -> CComp* { return new CEffect(engine); });
}
