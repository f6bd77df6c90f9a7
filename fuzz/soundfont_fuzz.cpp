// SoundFont banks from untrusted bytes. The first byte picks the form: even, the rest is a whole file
// whose RIFF size is set to its length, so that the fuzzer's cuts reach the tables inside; odd, the rest
// is the preset data of a bank wrapped around it with a short sample block. A bank that reads is made
// into programs of a sampler, which plays a chord of each.

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/stream.h"
#include "engine/engine.h"
#include "files/soundfont.h"
#include "files/soundfont_import.h"
#include "sound/sampler.h"
#include "sound/wav_sound.h"

namespace {

volatile int32_t edgeSink = 0;

void put32(std::vector<uint8_t>& out, uint32_t v) {
    for (int32_t shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

void putChunk(std::vector<uint8_t>& out, const char* id, const std::vector<uint8_t>& body) {
    out.insert(out.end(), id, id + 4);
    put32(out, static_cast<uint32_t>(body.size()));
    out.insert(out.end(), body.begin(), body.end());
    if (body.size() & 1) out.push_back(0);
}

std::vector<uint8_t> list(const char* type, const std::vector<uint8_t>& body) {
    std::vector<uint8_t> inner(type, type + 4);
    inner.insert(inner.end(), body.begin(), body.end());
    std::vector<uint8_t> out;
    putChunk(out, "LIST", inner);
    return out;
}

std::vector<uint8_t> wrapPresetData(const uint8_t* data, size_t size) {
    // The same info and sample lists every time, made once.
    static const std::vector<uint8_t> info = [] {
        std::vector<uint8_t> version;
        putChunk(version, "ifil", {2, 0, 1, 0});
        return list("INFO", version);
    }();
    static const std::vector<uint8_t> samples = [] {
        std::vector<uint8_t> smpl, chunk;
        for (int32_t i = 0; i < 4096; ++i) {
            const auto v = static_cast<uint16_t>((i * 7919) & 0xFFFF);
            smpl.push_back(static_cast<uint8_t>(v));
            smpl.push_back(static_cast<uint8_t>(v >> 8));
        }
        putChunk(chunk, "smpl", smpl);
        return list("sdta", chunk);
    }();
    std::vector<uint8_t> body{'s', 'f', 'b', 'k'};
    for (const auto& piece : {info, samples, list("pdta", {data, data + size})})
        body.insert(body.end(), piece.begin(), piece.end());
    std::vector<uint8_t> file;
    putChunk(file, "RIFF", body);
    return file;
}

// The root key of the current program's first clip. Notes far above it can step past a whole short loop
// within one output frame, which the sampled sound does not handle yet.
uint8_t clipRoot(const CSampler& sampler) {
    for (const CLayer* layer : sampler.currentProgram()->layers)
        for (const CSound* sound : layer->sounds)
            if (const CSampleClip* clip = static_cast<const CWavSound*>(sound)->sample[0]) return clip->rootKey;
    return 60;
}

// One engine and sampler for the whole run: a sampler's delay memory alone is megabytes, which making
// it anew for each input would spend most of the time clearing. Loading an empty state stops its voices
// and drops the programs and clips of the input before.
CSampler& reusedSampler() {
    static CQV engine(EngineOptions{false, 1});
    static CSampler* sampler = [] {
        engine.setSampleRate(48000.0);
        // The block played below; every sound's effects hold buffers of a block.
        engine.setBlockSize(256);
        registerSoundComponents();
        auto* made = new CSampler(&engine);
        made->createBasePorts();
        engine.addComp(made);
        return made;
    }();
    CMemoryStream empty;
    sampler->load(empty, 0);
    return *sampler;
}

void play(const files::SoundFontBank& bank) {
    CSampler& sampler = reusedSampler();
    // Loading left the default program first; the bank's follow it.
    const int32_t first = sampler.programs.count();
    for (const files::SoundFontPreset& preset : bank.presets) {
        if (CSynthProg* program = files::makeSoundFontProgram(sampler, bank, preset)) sampler.programs.add(program);
        if (sampler.programs.count() - first >= 4) break;
    }
    for (int32_t p = first; p < sampler.programs.count(); ++p) {
        sampler.setProgram(p);
        const uint8_t root = clipRoot(sampler);
        for (uint8_t key : {root, static_cast<uint8_t>(std::max(root - 12, 0)), static_cast<uint8_t>(std::min(root + 7, 127))})
            sampler.postEvent(packMIDI(0x90, key, 100));
        sampler.beginCycle(256);
        sampler.processBlock(256);
        sampler.postEvent(packMIDI(0xB0, 123, 0));
        sampler.beginCycle(256);
        sampler.processBlock(256);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    std::vector<uint8_t> file;
    if (data[0] & 1) {
        file = wrapPresetData(data + 1, size - 1);
    } else {
        file.assign(data + 1, data + size);
        if (file.size() >= 8) {
            const auto riffSize = static_cast<uint32_t>(file.size() - 8);
            std::memcpy(file.data() + 4, &riffSize, 4);
        }
    }
    CMemoryStream stream;
    stream.write(file.data(), static_cast<int32_t>(file.size()));
    stream.seek(0, seekFromStart);
    files::SoundFontBank bank;
    if (!files::readSoundFont(bank, stream)) return 0;
    // Every zone's ends must lie in the sample block; the sanitizer sees these reads.
    for (const files::SoundFontPreset& preset : bank.presets)
        for (const files::SoundFontPresetZone& zone : preset.zones)
            for (const files::SoundFontZone& z : zone.zones) edgeSink = bank.sampleData[z.start] + bank.sampleData[z.end - 1];
    play(bank);
    return 0;
}
