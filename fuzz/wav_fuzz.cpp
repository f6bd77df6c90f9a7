// WAV files: the chunk walk, the formats, the sampler chunk and playback of whatever loaded.
#include "audio_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzzing::fuzzAudioFile(data, size, "RIFF", "WAVE");
}
