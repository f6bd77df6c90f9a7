#pragma once
// A General MIDI file played through a SoundFont: the file is imported into a sequencer, then its notes
// are dealt out to one instrument track and sampler for each channel and preset the file asks for, since
// a sampler plays one program and takes no program changes. Program and bank-select changes choose the
// preset of the notes that follow them on their channel; channel 10 plays bank 128, the drum kits.
// Controllers, pitch wheel and pressure go to every track of their channel.

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "engine/engine.h"
#include "engine/io.h"
#include "seq/seq.h"
#include "files/damage.h"
#include "files/soundfont.h"

namespace files {

class SongError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Where a song built from a MIDI file starts: the sampler's classes registered, the engine at the rate,
// and a sequencer and an audio output added to it.
struct SongFrame {
    CSeq* seq;
    CAudioOut* out;
};
SongFrame addSongFrame(CQV& engine, double sampleRate);

class GmSong {
public:
    // Throws SongError when the MIDI file can't be read.
    GmSong(double sampleRate, const CString& midiPath, const files::SoundFontBank& bank);
    GmSong(const GmSong&) = delete;
    GmSong& operator=(const GmSong&) = delete;

    // The last note's end and two seconds at 120 BPM more for the releases.
    int32_t lengthTicks() const { return lengthTicks_; }
    int32_t samplerCount() const { return samplers_; }
    int32_t noteCount() const { return notes_; }
    // The preset of each sampler, in the order the samplers were made.
    const std::vector<const SoundFontPreset*>& presets() const { return presets_; }
    // What a damaged MIDI file lost; the song holds what could be read.
    const DamageReport& damage() const { return damage_; }

    CQV engine;

private:
    int32_t lengthTicks_ = 0;
    int32_t samplers_ = 0;
    int32_t notes_ = 0;
    std::vector<const SoundFontPreset*> presets_;
    DamageReport damage_;
};

}  // namespace files
