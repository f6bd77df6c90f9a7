#pragma once
// Sampler programs from a SoundFont bank: each preset becomes a program with one layer, each of its
// instrument zones a sampled sound over the clip of that zone's sample. A sample that several zones share
// is copied out of the bank once for each sampler.

#include <cstdint>

#include "core/string.h"
#include "files/soundfont.h"

class CSampler;
class CSynthProg;
class CUndo;

namespace files {

// A program of the preset for `sampler`, not yet in its list; its clips join the sampler's pool.
CSynthProg* makeSoundFontProgram(CSampler& sampler, const SoundFontBank& bank, const SoundFontPreset& preset);

// Reads the file and adds a program for every preset, through the undo step when there is one, else at
// once. The number of programs made; -1 with `error` set when the file was refused.
int32_t importSoundFont(CSampler& sampler, const CString& path, CUndo* undo, std::string* error = nullptr);

}  // namespace files
