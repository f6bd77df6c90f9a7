// AIFF files: the chunk walk, the 80-bit rate, the sound chunk's offset and playback of what loaded.
#include "audio_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzzing::fuzzAudioFile(data, size, "FORM", "AIFF");
}
