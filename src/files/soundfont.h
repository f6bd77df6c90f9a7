#pragma once
// SoundFont 2 banks: presets made of zones that each point at an instrument, whose own zones map key and
// velocity ranges onto 16-bit mono samples held in one block. Reading works the instrument zones out
// into plain records (root key, tuning, pan, range, the sample's played and looped frames), which is all
// the sampler takes from a bank; the tables are kept as they were read.
//
// Nothing in the file is trusted. A chunk that runs past its parent, a table whose size isn't a whole
// number of records, a compressed bank (version 3), or sample data cut short refuse the whole bank with
// a message; an index that points outside its table only drops the zone that holds it.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/string.h"

class CStream;

namespace files {

struct SoundFontInfo {
    uint16_t versionMajor = 0, versionMinor = 0;  // "ifil"
    uint16_t romMajor = 0, romMinor = 0;          // "iver"
    std::string engine;     // "isng"
    std::string name;       // "INAM"
    std::string rom;        // "irom"
    std::string date;       // "ICRD"
    std::string engineers;  // "IENG"
    std::string product;    // "IPRD"
    std::string copyright;  // "ICOP"
    std::string comment;    // "ICMT"
    std::string tool;       // "ISFT"
};

struct SoundFontGenerator {
    uint16_t oper = 0;
    uint16_t amount = 0;  // signed, a byte range (low byte, high byte) or an index by the generator
    int16_t value() const { return static_cast<int16_t>(amount); }
};

struct SoundFontModulator {
    uint16_t source = 0, destination = 0;
    int16_t amount = 0;
    uint16_t amountSource = 0, transform = 0;
};

struct SoundFontSample {
    std::string name;
    uint32_t start = 0, end = 0, loopStart = 0, loopEnd = 0;  // frames in the sample block
    uint32_t sampleRate = 0;
    uint8_t originalPitch = 60;
    int8_t pitchCorrection = 0;  // cents
    uint16_t link = 0, type = 0;
};

// One instrument zone worked out against its instrument's global zone and its sample.
struct SoundFontZone {
    int32_t sample = 0;  // index into samples
    int32_t rootKey = 60;
    float fine = 0.0f;  // semitones
    float pan = 0.0f;   // -1 left .. +1 right
    int32_t keyLow = 0, keyHigh = 127;
    int32_t velLow = 0, velHigh = 127;
    uint32_t start = 0, end = 0;  // frames in the sample block, end excluded
    bool loop = false;
    int32_t loopStart = 0, loopEnd = 0;  // frames from `start`
    float attenuation = 0.0f;  // dB
    // The volume envelope: the decay runs to the sustain level (an amplitude, 0..1) in its own time.
    float attackSeconds = 0.0f;
    float decaySeconds = 0.0f;
    float sustainLevel = 1.0f;
    float releaseSeconds = 0.0f;
};

struct SoundFontPresetZone {
    int32_t keyLow = 0, keyHigh = 127;
    int32_t velLow = 0, velHigh = 127;
    int32_t instrument = -1;  // none: the zone makes no sound
    std::vector<SoundFontZone> zones;
};

struct SoundFontPreset {
    std::string name;
    uint16_t preset = 0, bank = 0;
    uint32_t library = 0, genre = 0, morphology = 0;
    int32_t index = 0;  // place in the sorted order
    std::vector<SoundFontPresetZone> zones;
};

struct SoundFontInstrument {
    std::string name;
    uint16_t firstBag = 0;
};

// An allocator whose resize leaves new elements uninitialised, for a block that is read over at once.
template <class T>
struct ReadOverAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = ReadOverAllocator<U>;
    };
    ReadOverAllocator() = default;
    template <class U>
    ReadOverAllocator(const ReadOverAllocator<U>&) noexcept {}
    template <class U>
    void construct(U* at) noexcept {
        ::new (static_cast<void*>(at)) U;
    }
    template <class U, class... Args>
    void construct(U* at, Args&&... args) {
        ::new (static_cast<void*>(at)) U(std::forward<Args>(args)...);
    }
};

class SoundFontBank {
public:
    // Empties the bank: the sample block is the large part.
    void clear();
    // The preset of a bank and program; null when the bank doesn't have it.
    const SoundFontPreset* find(int32_t bank, int32_t program) const;

    SoundFontInfo info;
    std::vector<int16_t, ReadOverAllocator<int16_t>> sampleData;  // the whole "smpl" chunk
    std::vector<SoundFontSample> samples;  // without the terminal record
    std::vector<SoundFontInstrument> instruments;  // without the terminal record
    std::vector<SoundFontPreset> presets;  // without the terminal record, sorted by preset number
    std::vector<int32_t> melodic;  // presets of bank 0, as indices into presets
    std::vector<int32_t> drums;    // presets of bank 128
    // The tables as read, terminal records included.
    std::vector<uint16_t> presetBags, instrumentBags;  // generator index of each bag
    std::vector<uint16_t> presetBagModulators, instrumentBagModulators;
    std::vector<SoundFontGenerator> presetGenerators, instrumentGenerators;
    std::vector<SoundFontModulator> presetModulators, instrumentModulators;
    std::string error;  // why the last read refused the file
};

// Parses a SoundFont 2 file into `bank`. False, with `bank.error` set and the bank empty, when the file
// can't be opened or is refused.
bool readSoundFont(SoundFontBank& bank, const CString& path);
bool readSoundFont(SoundFontBank& bank, CStream& stream);

}  // namespace files
