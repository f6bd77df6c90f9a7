#pragma once
// Shared body of the audio file fuzzers: the bytes become a file whose first twelve bytes name the
// form under test, which is opened in memory and streamed, played at several rates both ways, and
// copied out as a project would store it.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sound/sample.h"

namespace fuzzing {

inline const std::string& scratchFile() {
    static const std::string path = "/tmp/vantrell-fuzz-" + std::to_string(getpid());
    return path;
}

inline void playSample(CSample& sample) {
    static std::vector<float> scratch(4096), left(256), right(256);
    for (float rate : {1.0f, 0.37f, 2.9f}) {
        for (uint8_t reverse : {uint8_t{0}, uint8_t{1}}) {
            const int32_t count = std::min(256, CSample::framesFitting(4096, sample.channels, rate));
            sample.readInterpolated(0, count, left.data(), right.data(), sample.frames * 0.5 - 3.0, rate,
                                    scratch.data(), 4096, reverse, 0, sample.frames);
        }
    }
    if (int64_t{sample.frames} * sample.bytesPerFrame <= (1 << 20)) sample.storedBytes();
}

inline int fuzzAudioFile(const uint8_t* bytes, size_t size, const char* form, const char* type) {
    std::vector<uint8_t> file(bytes, bytes + size);
    if (file.size() < 12) file.resize(12);
    std::memcpy(file.data(), form, 4);
    std::memcpy(file.data() + 8, type, 4);
    std::FILE* f = std::fopen(scratchFile().c_str(), "wb");
    if (!f) return 0;
    std::fwrite(file.data(), 1, file.size(), f);
    std::fclose(f);
    for (int32_t streamed : {0, 1}) {
        CSampleClip clip;
        clip.streamed = streamed;
        if (clip.open(scratchFile().c_str())) playSample(clip);
    }
    return 0;
}

}  // namespace fuzzing
