// Sampled sounds in the sampler: pitch, the clip's end and loop, streamed against in-memory playback,
// save and load with the clip data, and the real-time rule, measured from rendered output.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/stream.h"
#include "core/temp_folder.h"
#include "sound/wav_sound.h"
#include "sound_rig.h"
#include "support/rt_probe.h"

namespace {

using namespace soundtest;

// A sine clip written by sox: `seconds` long at `rate`, of `hz`.
std::string sineFile(const TempFolder& dir, int32_t rate, double hz, double seconds, const char* name = "sine.wav") {
    const std::string path = dir.file(name);
    const std::string command = "sox -n -r " + std::to_string(rate) + " -b 24 '" + path + "' synth " +
                                std::to_string(seconds) + " sine " + std::to_string(hz) + " vol 0.5 2>/dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return path;
}

// Puts a sampled sound of the clip in place of the rig's oscillator sound, the filter wide open.
CWavSound& useClip(Rig& rig, const std::string& path, int32_t streamed = 0, float cutoff = 1.0f) {
    auto* clip = new CSampleClip();
    clip->streamed = streamed;
    EXPECT_TRUE(clip->open(path.c_str())) << clip->error.c_str();
    rig.sampler->samplePool.add(clip);
    auto* sound = new CWavSound();
    sound->pool = &rig.sampler->samplePool;
    sound->setBlockSize(rig.block);
    sound->setSampleRate(rig.engine.sampleRate);
    sound->cutoff = cutoff;
    sound->setSample(clip);
    CLayer& layer = *rig.prog().layers.getAt(0);
    layer.sounds.deleteAll();
    layer.addSound(sound);
    return *sound;
}

TEST(WavSound, PitchFollowsTheKeyAndTheRateRatio) {
    TempFolder dir;
    // A 44.1 kHz clip in a 48 kHz engine keeps its pitch at the root key; an octave up doubles it.
    const std::string path = sineFile(dir, 44100, 441.0, 1.0);
    for (const auto& [key, hz] : {std::pair{60, 441.0}, std::pair{72, 882.0}, std::pair{55, 441.0 * std::pow(2.0, -5.0 / 12.0)}}) {
        Rig rig;
        CWavSound& sound = useClip(rig, path);
        rig.render(24000, {{0, noteOn(key)}});
        EXPECT_FLOAT_EQ(rig.sampler->voices[CSampler::voiceCount - 1].rateRatio, 0.91875f);
        FourierPeaks peaks(rig.left, 4096, 16384, 48000.0);
        EXPECT_NEAR(peaks.peak(hz * 0.8, hz * 1.2), hz, hz * 1e-4) << "key " << key;
        EXPECT_EQ(sound.name, CString("sine.wav"));
    }
}

TEST(WavSound, EqualRatesAtTheRootKeyMoveOneFrameAFrame) {
    TempFolder dir;
    Rig rig(256);
    useClip(rig, sineFile(dir, 48000, 1000.0, 0.5));
    rig.cycle({{0.0, noteOn(60)}});
    const SamplerVoice& voice = rig.sampler->voices[CSampler::voiceCount - 1];
    EXPECT_EQ(voice.rate, 1.0);
    EXPECT_EQ(voice.position, 256.0);
}

TEST(WavSound, TheClipEndsExactlyAtItsEndOrLoops) {
    TempFolder dir;
    const std::string path = sineFile(dir, 48000, 480.0, 0.1);  // 4800 frames
    // No loop: the voice stops at the end frame with no closing interval, whatever the envelope does.
    {
        Rig rig(128);
        CWavSound& sound = useClip(rig, path, 0, 0.5f);
        sound.envelope[0].releaseTime = 5.0f;
        rig.render(8192, {{100, noteOn(60)}});
        int64_t lastSound = -1;
        for (size_t i = 0; i < rig.left.size(); ++i)
            if (rig.left[i] != 0.0f) lastSound = static_cast<int64_t>(i);
        EXPECT_EQ(lastSound, 100 + 4799 - 1) << "frames 0 .. end - 1 play";
        EXPECT_EQ(rig.sampler->soundingVoices(), 0);
    }
    // A loop from frame 1200: after the first pass the output repeats every 3599 frames (end - loop start).
    {
        Rig rig(128);
        CWavSound& sound = useClip(rig, path, 0, 0.5f);
        sound.sample[0]->loop = loopForward;
        sound.sample[0]->loopStart = 1200;
        rig.render(20000, {{0, noteOn(60)}});
        EXPECT_EQ(rig.sampler->soundingVoices(), 1);
        constexpr size_t period = 4799 - 1200;
        for (size_t i = 9000; i < 9000 + period; ++i) ASSERT_NEAR(rig.left[i + period], rig.left[i], 1e-5) << i;
    }
    // A loop of one frame four octaves up: shorter than an output frame, it still sounds and the block ends.
    {
        Rig rig(128);
        CWavSound& sound = useClip(rig, path, 0, 0.5f);
        sound.sample[0]->loop = loopForward;
        sound.sample[0]->loopStart = 4798;
        rig.render(8192, {{0, noteOn(108)}});
        EXPECT_EQ(rig.sampler->soundingVoices(), 1);
    }
    // A loop start at the end plays as no loop.
    {
        Rig rig(128);
        CWavSound& sound = useClip(rig, path, 0, 0.5f);
        sound.sample[0]->loop = loopForward;
        sound.sample[0]->loopStart = 4799;
        rig.render(8192, {{0, noteOn(60)}});
        EXPECT_EQ(rig.sampler->soundingVoices(), 0);
    }
}

TEST(WavSound, StreamedAndInMemoryClipsPlayTheSameBits) {
    TempFolder dir;
    const std::string path = dir.file("noise.wav");
    // Long enough to cross several stream buffers, stereo, transposed so frames are read at a fraction.
    ASSERT_EQ(std::system(("sox -n -r 44100 -b 16 -c 2 '" + path + "' synth 2 whitenoise vol 0.5 2>/dev/null").c_str()), 0);
    std::vector<float> outputs[2];
    for (int32_t streamed : {0, 1}) {
        Rig rig;
        useClip(rig, path, streamed);
        rig.render(96000, {{0, noteOn(63)}, {30000, noteOn(58)}});
        outputs[streamed] = rig.left;
        outputs[streamed].insert(outputs[streamed].end(), rig.right.begin(), rig.right.end());
    }
    EXPECT_EQ(outputs[0], outputs[1]);
}

TEST(WavSound, VoicesRenderedInGroupsSoundAsEachAlone) {
    // The sampler renders its sampled voices in groups where their chunks allow. Notes that start
    // mid-block, at different rates, one released and some running off the clip's end, must together
    // make the sum of what each makes alone.
    TempFolder dir;
    const std::string path = dir.file("noise.wav");
    const std::string stereoPath = dir.file("stereo.wav");
    ASSERT_EQ(std::system(("sox -n -r 44100 -b 16 -c 1 '" + path + "' synth 0.2 pinknoise vol 0.5 2>/dev/null").c_str()), 0);
    ASSERT_EQ(std::system(("sox -n -r 44100 -b 16 -c 2 '" + stereoPath + "' synth 0.25 pinknoise vol 0.5 2>/dev/null").c_str()), 0);
    const std::vector<std::pair<int64_t, uint32_t>> notes[] = {
        {{0, noteOn(60)}}, {{700, noteOn(64)}, {5000, noteOff(64)}}, {{1500, noteOn(67)}}, {{2222, noteOn(48, 40)}}};
    constexpr int64_t frames = 14000;
    const auto render = [&](const std::vector<std::pair<int64_t, uint32_t>>& events) {
        Rig rig(512);
        CWavSound& sound = useClip(rig, path, 0, 0.6f);
        sound.envelope[0].releaseTime = 0.05f;
        // A second sound, stereo and filtered differently, groups its voices with the first's.
        auto* stereo = new CSampleClip();
        EXPECT_TRUE(stereo->open(stereoPath.c_str())) << stereo->error.c_str();
        rig.sampler->samplePool.add(stereo);
        auto* darker = new CWavSound();
        darker->pool = sound.pool;
        darker->setBlockSize(rig.block);
        darker->setSampleRate(rig.engine.sampleRate);
        darker->cutoff = 0.3f;
        darker->q = 0.5f;
        darker->setSample(stereo);
        rig.prog().layers.getAt(0)->addSound(darker);
        rig.render(frames, events);
        return std::pair{rig.left, rig.right};
    };
    std::vector<std::pair<int64_t, uint32_t>> together;
    std::vector<float> sumL(frames), sumR(frames);
    for (const auto& events : notes) {
        together.insert(together.end(), events.begin(), events.end());
        const auto [left, right] = render(events);
        for (int64_t i = 0; i < frames; ++i) {
            sumL[i] += left[i];
            sumR[i] += right[i];
        }
    }
    std::sort(together.begin(), together.end());
    const auto [left, right] = render(together);
    float loudest = 0.0f;
    for (int64_t i = 0; i < frames; ++i) {
        ASSERT_NEAR(left[i], sumL[i], 1e-6f) << "frame " << i;
        ASSERT_NEAR(right[i], sumR[i], 1e-6f) << "frame " << i;
        loudest = std::max(loudest, std::fabs(left[i]));
    }
    EXPECT_GT(loudest, 0.05f);
}

TEST(WavSound, EightLanesInterpolateTheBitsOfFour) {
#if defined(__x86_64__)
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "this processor has no 256-bit lanes";
#endif
    TempFolder dir;
    const std::string path = dir.file("noise.wav");
    ASSERT_EQ(std::system(("sox -n -r 44100 -b 16 -c 1 '" + path + "' synth 1 whitenoise vol 0.8 2>/dev/null").c_str()), 0);
    std::vector<float> outputs[2];
    for (bool wide : {false, true}) {
        CWavSound::allowWideLanes(wide);
        Rig rig(512);
        useClip(rig, path, 0, 0.8f);
        // Odd starts and rates leave chunks whose lengths are not multiples of eight or four.
        rig.render(30000, {{0, noteOn(61)}, {333, noteOn(70)}, {4001, noteOn(45)}, {9000, noteOff(70)}});
        outputs[wide] = rig.left;
    }
    CWavSound::allowWideLanes(true);
    EXPECT_EQ(outputs[0], outputs[1]);
}

TEST(WavSound, SamplerSavesAndLoadsItsClipsByteForByte) {
    TempFolder dir;
    Rig rig;
    CWavSound& sound = useClip(rig, sineFile(dir, 44100, 300.0, 0.2));
    sound.sample[0]->rootKey = 57;
    sound.sample[0]->loop = loopForward;
    sound.sample[0]->loopStart = 333;
    sound.sample[0]->start = 10;
    // A clip no sound uses is dropped at load.
    auto* unused = new CSampleClip();
    ASSERT_TRUE(unused->open(sineFile(dir, 22050, 100.0, 0.01, "unused.wav").c_str()));
    rig.sampler->samplePool.add(unused);

    CMemoryStream first;
    rig.sampler->save(first);
    Rig loaded;
    first.seek(0, seekFromStart);
    loaded.sampler->load(first, first.getSize());
    ASSERT_EQ(loaded.sampler->samplePool.count(), 1);
    const CSampleClip& clip = *loaded.sampler->samplePool.getAt(0);
    EXPECT_EQ(clip.rootKey, 57);
    EXPECT_EQ(clip.loopStart, 333);
    EXPECT_EQ(clip.start, 10);
    EXPECT_EQ(clip.useCount, 1);
    const auto& copy = *static_cast<CWavSound*>(loaded.prog().layers.getAt(0)->sounds.getAt(0));
    EXPECT_EQ(copy.name, CString("sine.wav"));

    // Without the unused clip, saving what was loaded gives the same bytes; the loaded clip plays what
    // the file did.
    rig.sampler->samplePool.remove(unused);
    delete unused;
    CMemoryStream original, again;
    rig.sampler->save(original);
    loaded.sampler->save(again);
    ASSERT_EQ(original.getSize(), again.getSize());
    EXPECT_EQ(std::memcmp(original.data(), again.data(), static_cast<size_t>(again.getSize())), 0);
    rig.render(20000, {{0, noteOn(62)}});
    loaded.render(20000, {{0, noteOn(62)}});
    EXPECT_EQ(rig.left, loaded.left);
}

TEST(WavSound, PlayingSampledVoicesAllocatesNothingAndTakesNoLock) {
    if (!rtprobe::available()) GTEST_SKIP() << "the probe is replaced by the sanitizer's allocator";
    TempFolder dir;
    Rig rig;
    CWavSound& sound = useClip(rig, sineFile(dir, 44100, 220.0, 0.3));
    sound.sample[0]->loop = loopForward;
    sound.sample[0]->loopStart = 100;
    rig.left.reserve(1 << 20);
    rig.right.reserve(1 << 20);
    std::vector<std::pair<double, uint32_t>> chord;
    for (int32_t key = 30; key < 90; ++key) chord.emplace_back(static_cast<double>(key), noteOn(key));
    int64_t allocations = 0, locks = 0;
    {
        rtprobe::Scope probe;
        rig.cycle(chord);
        for (int32_t i = 0; i < 30; ++i) rig.cycle();
        rig.cycle({{5.0, noteOff(40)}, {9.0, noteOn(100)}});
        allocations = probe.allocations();
        locks = probe.locks();
    }
    EXPECT_EQ(rig.sampler->soundingVoices(), 61);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(locks, 0);
}

}  // namespace
