#pragma once
// Shared body of the audio file fuzzers: the bytes become a file whose first twelve bytes name the
// form under test, which is opened in memory or streamed, read at several rates both ways, played by a
// sampled sound with its loop, and copied out as a project would store it.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "sound/sample.h"
#include "sound/sampler.h"
#include "sound/wav_sound.h"

namespace fuzzing {

// The reader takes a path. The file lives in memory where the system has such a folder: rewriting a file
// on a disk's file system each run makes it flush on close, which cost most of the fuzzer's time.
// It goes when the fuzzer exits.
inline const std::string& scratchFile() {
    struct Scratch {
        std::string path =
            (std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path().string()) +
            "/vantrell-fuzz-" + std::to_string(getpid());
        ~Scratch() { std::remove(path.c_str()); }
    };
    static const Scratch scratch;
    return scratch.path;
}

// Notes low, at the root and high through a sampled sound, looped as the file says, for a few short
// blocks: the high note walks thousands of frames in them, through the loop of a short sample, and
// every frame more only repeats the same paths at the cost of the fuzzer's speed.
inline void playVoices(CSampleClip& clip) {
    constexpr int32_t block = 64;
    static std::vector<float> outL(block), outR(block), readL(block), readR(block), scratch(CSampler::scratchFrames);
    // One sound for the whole run: making its effects each time would cost more than the rest.
    static CWavSound sound;
    sound.setBlockSize(block);
    sound.setSampleRate(48000.0f);
    sound.setSample(&clip);
    for (int32_t key : {0, 60, 127}) {
        SamplerVoice voice;
        voice.sampleRate = 48000.0f;
        voice.outL = outL.data();
        voice.outR = outR.data();
        voice.readL = readL.data();
        voice.readR = readR.data();
        voice.interpScratch = scratch.data();
        voice.note = key;
        voice.pitch = static_cast<float>(key);
        sound.startVoice(voice);
        sound.noteOn(voice);
        voice.state = voiceSounding;
        for (int32_t k = 0; k < 4 && voice.state == voiceSounding; ++k) sound.process(outL.data(), outR.data(), voice, block);
    }
}

inline void playSample(CSample& sample) {
    static std::vector<float> scratch(4096), left(64), right(64);
    for (float rate : {1.0f, 0.37f, 2.9f}) {
        for (uint8_t reverse : {uint8_t{0}, uint8_t{1}}) {
            const int32_t count = std::min(64, CSample::framesFitting(4096, sample.channels, rate));
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
    // The form's size, which the readers pass over, chooses between memory and streaming: each input
    // is opened one way, and the fuzzer's mutations reach both.
    CSampleClip clip;
    clip.streamed = file[4] & 1;
    if (!clip.open(scratchFile().c_str())) return 0;
    playSample(clip);
    playVoices(clip);
    return 0;
}

}  // namespace fuzzing
