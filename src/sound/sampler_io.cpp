// The sampler's block stream: save, load, and copy through both.

#include <atomic>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/stream.h"
#include "fx/reverb.h"
#include "platform/platform.h"
#include "core/block_in.h"
#include "sound/fx_state.h"
#include "sound/sampler.h"
#include "sound/wav_sound.h"

namespace {

constexpr uint32_t fileTypeSampler = 3;
// Words of the send effects' saved forms inside "progfx".
constexpr int32_t reverbWords = 2, reverbZeros = 8;
constexpr int32_t delayWords = 8, delayZeros = 4;
constexpr int32_t layerExtraBytes = 32;

std::atomic<LoadErrorPrompt> loadErrorPrompt{nullptr};

CReverb* asReverb(CFX* fx) { return fx && fx->subKind == fxReverb ? static_cast<CReverb*>(fx) : nullptr; }

void writeI32Block(CStream& stream, const char* tag, int32_t value) {
    writeBlockHeader(stream, tag, 4);
    stream.writeI32(value);
}

}  // namespace

void setLoadErrorPrompt(LoadErrorPrompt prompt) { loadErrorPrompt.store(prompt, std::memory_order_relaxed); }

void CSampler::save(CStream& stream) { saveState(stream); }

void CSampler::saveState(CStream& stream) const {
    writeBlockHeader(stream, "filetype", 4);
    stream.writeU32(fileTypeSampler);
    for (CSampleClip* clip : samplePool) {
        const int32_t block = beginBlock(stream, "smp");
        stream.writeU32(0);
        stream.writeU32(0);
        writeString(stream, clip->path);
        // A clip that did not load is stored empty, so that the block's data matches its fields.
        const int32_t frames = clip->valid ? clip->frames : 0;
        for (int32_t value : {frames, clip->bits, clip->channels, static_cast<int32_t>(std::lround(clip->sampleRate)),
                              clip->start, clip->end, 0, 0, 0, 0, 0, 0})
            stream.writeI32(value);
        const std::vector<uint8_t> bytes = clip->storedBytes();
        if (frames > 0) stream.write(bytes.data(), static_cast<int32_t>(bytes.size()));
        stream.closeBlock(block);
    }
    writeI32Block(stream, "mch", mch);
    writeI32Block(stream, "progi", program);
    for (const CObject* object : programs) {
        const auto* prog = static_cast<const CSynthProg*>(object);
        writeBlockHeader(stream, "prog", 0);
        writeBlockHeader(stream, "progid", static_cast<uint32_t>(prog->name.length() + 4));
        writeString(stream, prog->name);
        for (const CLayer* layer : prog->layers) {
            writeBlockHeader(stream, "layer", 0);
            writeBlockHeader(stream, "laex", layerExtraBytes);
            stream.writeU8(layer->editAll);
            for (int32_t k = 0; k < 3; ++k) stream.writeU8(0);
            for (int32_t k = 0; k < 7; ++k) stream.writeI32(0);
            for (const CSound* sound : layer->sounds) sound->save(stream);
        }
        const int32_t effects = beginBlock(stream, "progfx");
        saveFXState(stream, *prog->reverb(), reverbWords, reverbZeros);
        saveFXState(stream, *prog->delay(), delayWords, delayZeros);
        stream.closeBlock(effects);
        const CReverb* reverb = asReverb(prog->reverb());
        writeI32Block(stream, "reverbSize", reverb ? reverb->size : 0);
        writeI32Block(stream, "layeri", prog->selectedLayer ? prog->layers.indexOf(prog->selectedLayer) : -1);
    }
    writeBlockHeader(stream, "options", optionBytes);
    stream.write(options, optionBytes);
}

void CSampler::load(CStream& stream, int32_t end) {
    stopAllVoices();
    programs.deleteAll();
    samplePool.deleteAll();
    CSynthProg* prog = nullptr;
    CLayer* layer = nullptr;
    CSound* sound = nullptr;

    CBlockReader blocks(stream, end);
    while (blocks.next()) {
        // A size that reads as negative ends the load.
        if (static_cast<int32_t>(blocks.size()) < 0) break;
        BlockIn in(stream, blocks.blockEnd());
        if (blocks.is("smp")) {
            loadClip(in);
        } else if (blocks.is("filetype")) {
            uint32_t type = 0;
            in.u32(type);
        } else if (blocks.is("mch")) {
            in.i32(mch);
        } else if (blocks.is("progi")) {
            in.i32(program);
        } else if (blocks.is("options")) {
            uint8_t bytes[optionBytes];
            if (in.bytes(bytes, optionBytes)) std::memcpy(options, bytes, optionBytes);
        } else if (blocks.is("prog")) {
            prog = makeProgram();
            programs.add(prog);
            layer = nullptr;
            sound = nullptr;
        } else if (blocks.is("progid")) {
            if (prog) in.string(prog->name);
        } else if (blocks.is("layer")) {
            if (prog) layer = prog->addLayer();
            sound = nullptr;
        } else if (blocks.is("laex")) {
            if (layer) in.u8(layer->editAll);
        } else if (blocks.is("sound")) {
            uint8_t kind = 0;
            in.u8(kind);
            sound = layer && in.ok() ? createSound(kind) : nullptr;
            if (sound) {
                prepareSound(*sound);
                layer->addSound(sound);
                sound->loadSound(in);
            }
        } else if (blocks.is("soundmod")) {
            if (sound) sound->loadModulation(in);
        } else if (blocks.is("soundfx")) {
            if (sound) sound->loadEffects(in);
        } else if (blocks.is("progfx")) {
            if (prog) {
                loadFXState(in, *prog->reverb(), reverbWords, reverbZeros);
                loadFXState(in, *prog->delay(), delayWords, delayZeros);
            }
        } else if (blocks.is("reverbSize")) {
            int32_t size = 0;
            if (CReverb* reverb = prog ? asReverb(prog->reverb()) : nullptr; reverb && in.i32(size))
                reverb->setSizeMs(size);
        } else if (blocks.is("layeri")) {
            int32_t index = -1;
            if (prog && in.i32(index)) prog->selectedLayer = prog->layers.getAt(index);
        }
        if (!in.ok()) reportDamage(blocks.tag(), blocks.size());
        // Whatever a block held beyond the fields read ("laex", a sound of a kind without a class) is
        // passed over by its size.
        blocks.skip();
    }
    rebuildUseCounts();
    // A sampler always has a program to play.
    if (programs.empty()) programs.add(makeDefaultProgram());
    raise(samplerRedraw);
}

void CSampler::loadClip(BlockIn& in) {
    auto* clip = new CSampleClip();
    samplePool.add(clip);
    int32_t frames = 0, bits = 0, channels = 0, rate = 0;
    if (!in.skip(8) || !in.string(clip->path) || !in.i32(frames) || !in.i32(bits) || !in.i32(channels) ||
        !in.i32(rate) || !in.i32(clip->start) || !in.i32(clip->end) || !in.skip(24))
        return;
    clip->bits = bits;
    clip->channels = channels;
    clip->sampleRate = static_cast<float>(rate);
    if ((bits != 16 && bits != 24 && bits != 32) || (channels != 1 && channels != 2) || rate <= 0 || frames < 0) return;
    const int64_t bytes = int64_t{frames} * (bits / 8 * channels);
    // The block must hold the data it declares: a larger count is damage, never a reason to allocate.
    if (bytes > in.left()) {
        in.skip(in.left() + 1);  // fails, which marks the block as damaged
        return;
    }
    auto data = std::make_unique<uint8_t[]>(static_cast<size_t>(std::max<int64_t>(bytes, 1)));
    if (!in.bytes(data.get(), static_cast<int32_t>(bytes))) return;
    clip->frames = frames;
    clip->adopt(std::move(data), bytes);
}

void CSampler::rebuildUseCounts() {
    for (CSampleClip* clip : samplePool) clip->useCount = 0;
    for (CObject* object : programs)
        for (CLayer* layer : static_cast<CSynthProg*>(object)->layers)
            for (CSound* sound : layer->sounds) {
                if (sound->subKind != soundSampled) continue;
                auto* wav = static_cast<CWavSound*>(sound);
                for (int32_t z = 0; z < wav->zones; ++z)
                    if (wav->sample[z]) ++wav->sample[z]->useCount;
            }
    for (int32_t i = samplePool.count() - 1; i >= 0; --i) {
        CSampleClip* clip = samplePool.getAt(i);
        if (clip->useCount > 0) continue;
        samplePool.remove(clip);
        delete clip;
    }
}

void CSampler::reportDamage(const CString& tag, uint32_t size) const {
    const CString caption = concat(concat("Error", " reading "), getName());
    const CString text = concat(concat(concat("Error reading block: ", tag), concat(" (", intToString(static_cast<int32_t>(size)))), ")");
    if (LoadErrorPrompt prompt = loadErrorPrompt.load(std::memory_order_relaxed)) prompt(caption, text);
    else platform::debugLine(concat(concat(caption, ": "), text).c_str());
}

CComp* CSampler::copy() const {
    CMemoryStream memory;
    saveState(memory);
    auto* twin = new CSampler(engine);
    twin->name = name;
    twin->createBasePorts();
    memory.seek(0, seekFromStart);
    twin->load(memory, memory.getSize());
    return twin;
}
