#pragma once
// vantrell-cli play: the demo song, a MIDI file through a SoundFont, or a project, through an audio
// device in real time, with live MIDI from the device's MIDI inputs reaching the song's MIDI input.

#include <string_view>
#include <vector>

#include "engine/engine.h"

namespace play {

// Arguments after "play". Returns the exit code: 0 played (also on the null driver), 1 the song could
// not be loaded, 2 a usage error.
int run(const std::vector<std::string_view>& args);

// Gives a song without a MIDI input one, cabled to its first instrument, so that a keyboard plays it.
CComp* addLiveInput(CQV& engine);

}  // namespace play
