// Sample data read from files other programs wrote (sox at every depth we read, the system's own sound
// files) and the damage a file can carry, compared with sox's own decode of the file.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "core/temp_folder.h"
#include "sound/sample.h"

namespace {

using namespace std::string_literals;

std::string quoted(const std::string& path) { return "'" + path + "'"; }

void sh(const std::string& command) { ASSERT_EQ(std::system((command + " 2>/dev/null").c_str()), 0) << command; }

// sox's decode of a file as 32-bit integers, channels interleaved.
std::vector<int32_t> soxDecode(const TempFolder& dir, const std::string& path) {
    const std::string raw = dir.file("decoded.s32");
    EXPECT_EQ(std::system(("sox " + quoted(path) + " -t s32 -L " + quoted(raw) + " 2>/dev/null").c_str()), 0);
    const std::string bytes = readBytes(raw);
    std::vector<int32_t> values(bytes.size() / 4);
    std::memcpy(values.data(), bytes.data(), values.size() * 4);
    return values;
}

int64_t soxInfo(const std::string& flag, const std::string& path) {
    FILE* pipe = popen(("sox --i " + flag + " " + quoted(path) + " 2>/dev/null").c_str(), "r");
    char line[64] = {};
    if (!pipe) return -1;
    const bool read = std::fgets(line, sizeof line, pipe) != nullptr;
    pclose(pipe);
    return read ? std::atoll(line) : -1;
}

// All frames of a sample through readFrames, channels interleaved.
std::vector<float> allFrames(CSample& sample) {
    std::vector<float> scratch(static_cast<size_t>(sample.frames + 8) * sample.channels);
    sample.readFrames(scratch.data(), static_cast<int32_t>(scratch.size()), 0, sample.frames, 1.0f);
    // The first frame in the scratch is the one before frame 0.
    return {scratch.begin() + sample.channels, scratch.begin() + static_cast<ptrdiff_t>((sample.frames + 1) * sample.channels)};
}

// Compares a sample with sox's decode: exact for integers, within the rounding of sox's own integer
// path for floats. Prints the first frame that differs.
void expectSameAsSox(CSample& sample, const std::vector<int32_t>& sox, double tolerance, const std::string& what) {
    const std::vector<float> ours = allFrames(sample);
    ASSERT_EQ(ours.size(), sox.size()) << what;
    for (size_t i = 0; i < ours.size(); ++i) {
        const auto expected = static_cast<float>(sox[i] * 4.656612873077393e-10);
        ASSERT_NEAR(ours[i], expected, tolerance) << what << ": value " << i;
    }
}

TEST(SampleFile, SoxFilesAtEveryDepthAndRateReadAsSoxDecodesThem) {
    TempFolder dir;
    const struct {
        const char* name;
        const char* soxFormat;
        int32_t bits, rate;
        bool bigEndian32;
        double tolerance;
    } rows[] = {
        {"i16.wav", "-b 16", 16, 22050, false, 0.0},
        {"i24.wav", "-b 24", 24, 44100, false, 0.0},
        {"f32.wav", "-e float -b 32", 32, 96000, false, 1e-9},
        {"pcm24.wav", "-t wavpcm -b 24", 24, 48000, false, 0.0},  // the plain format chunk, not the extensible one
        {"i16.aiff", "-b 16", 16, 11025, false, 0.0},             // AIFF rates are 80-bit floats
        {"i24.aif", "-b 24", 24, 192000, false, 0.0},
        {"i32.aiff", "-b 32", 32, 8000, true, 0.0},
    };
    for (const auto& row : rows) {
        for (int32_t channels : {1, 2}) {
            const std::string path = dir.file(std::to_string(channels) + row.name);
            // A chord and noise, so that every bit of the depth moves.
            sh("sox -n -r " + std::to_string(row.rate) + " " + row.soxFormat + " -c " + std::to_string(channels) + " " +
               quoted(path) + " synth 0.05 sine 441 whitenoise vol 0.5");
            const std::vector<int32_t> sox = soxDecode(dir, path);
            for (int32_t streamed : {0, 1}) {
                const std::string what = path + (streamed ? " streamed" : " in memory");
                CSampleClip clip;
                clip.streamed = streamed;
                ASSERT_TRUE(clip.open(path.c_str())) << what << ": " << clip.error.c_str();
                EXPECT_EQ(std::tie(clip.channels, clip.bits, clip.sampleRate),
                          std::make_tuple(channels, row.bits, static_cast<float>(row.rate)))
                    << what;
                EXPECT_EQ(clip.frames, soxInfo("-s", path)) << what;
                EXPECT_EQ(clip.end, clip.frames - 1) << what;
                EXPECT_EQ(clip.bigEndian != 0, row.bigEndian32 || (streamed && clip.format == CString("AIFF"))) << what;
                expectSameAsSox(clip, sox, row.tolerance, what);
            }
        }
    }
}

TEST(SampleFile, SystemSoundFilesReadAsSoxDecodesThem) {
    TempFolder dir;
    int32_t found = 0;
    for (const char* path : {"/usr/share/sounds/alsa/Front_Center.wav", "/usr/share/sounds/alsa/Noise.wav",
                             "/usr/share/puredata/doc/sound/voice.wav", "/usr/share/puredata/doc/sound/voice2.wav"}) {
        ASSERT_TRUE(std::filesystem::exists(path)) << path << " comes with alsa-utils and puredata-doc (scripts/bootstrap)";
        CSample sample;
        ASSERT_TRUE(sample.open(path)) << path << ": " << sample.error.c_str();
        EXPECT_EQ(sample.sampleRate, static_cast<float>(soxInfo("-r", path))) << path;
        expectSameAsSox(sample, soxDecode(dir, path), 0.0, path);
        EXPECT_EQ(sample.peaks.size(), static_cast<size_t>((sample.frames + 127) / 128 * 2 * sample.channels)) << path;
        // Peaks of 16-bit frames are found from the integers, those of a 24-bit copy (the same values) from
        // the converted floats.
        const std::string wider = dir.file("copy.wav");
        sh("sox " + quoted(path) + " -b 24 " + quoted(wider));
        CSample copy;
        ASSERT_TRUE(copy.open(wider.c_str()));
        EXPECT_EQ(sample.peaks, copy.peaks) << path;
        ++found;
    }
    EXPECT_EQ(found, 4);
}

TEST(SampleFile, VariantsWeCannotPlayAreRefusedWithAReason) {
    TempFolder dir;
    struct Row {
        const char* name;
        const char* soxFormat;  // null: the bytes below
        std::string bytes;
        const char* reason;  // a piece of the message
    };
    const Row rows[] = {
        {"u8.wav", "-b 8", "", "8 bit"},
        {"ulaw.wav", "-e u-law", "", "Compressed"},
        {"adpcm.wav", "-e ima-adpcm", "", "Compressed"},
        {"i32.wav", "-e signed -b 32", "", "32 bit integers"},
        {"i8.aiff", "-b 8", "", "8 bits"},
        {"c.aifc", "-t aifc -b 16", "", "AIFF-C"},
        {"quad.wav", "-b 16 -c 4", "", "mono and stereo"},
        {"fast.wav", "-r 768000 -b 16", "", "768000 Hz"},
        {"fast.aiff", "-r 768000 -b 16", "", "768000 Hz"},
        {"text.wav", nullptr, "just some words in a file"s, "Not a WAV or AIFF"},
        {"avi.wav", nullptr, "RIFF\x04\0\0\0AVI "s, "no WAVE"},
        {"short.wav", nullptr, "RIF"s, "too short"},
        {"empty.wav", nullptr, "RIFF\x04\0\0\0WAVE"s, "no audio data"},
    };
    for (const Row& row : rows) {
        const std::string path = dir.file(row.name);
        if (row.soxFormat) sh("sox -n -r 8000 " + std::string(row.soxFormat) + " " + quoted(path) + " synth 0.01 sine 100");
        else writeBytes(path, row.bytes);
        CSampleClip clip;
        EXPECT_FALSE(clip.open(path.c_str())) << row.name;
        EXPECT_EQ(clip.valid, 0) << row.name;
        EXPECT_NE(std::string(clip.error.c_str()).find(row.reason), std::string::npos)
            << row.name << ": " << clip.error.c_str();
        // Nothing is played from a sample that did not load.
        float left[4] = {9, 9, 9, 9}, right[4] = {9, 9, 9, 9}, scratch[64];
        clip.readInterpolated(0, 4, left, right, 0.0, 1.0f, scratch, 64, 0, 0, clip.frames);
        EXPECT_EQ(left[3], 9.0f) << row.name;
    }
    CSample missing;
    EXPECT_FALSE(missing.open(dir.file("nowhere.wav").c_str()));
    EXPECT_NE(std::string(missing.error.c_str()).find("cannot be opened"), std::string::npos);
}

// A little-endian WAV around 16-bit mono frames, with chunks put where a test wants them.
std::string le32(uint32_t v) { return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)}; }
std::string chunk(const std::string& id, const std::string& body, uint32_t declared) { return id + le32(declared) + body; }
std::string chunk(const std::string& id, const std::string& body) { return chunk(id, body, static_cast<uint32_t>(body.size())); }
const std::string fmt16 = chunk("fmt ", std::string("\x01\0\x01\0", 4) + le32(8000) + le32(16000) + std::string("\x02\0\x10\0", 4));
std::string frames16(std::initializer_list<int16_t> values) {
    std::string bytes;
    for (int16_t v : values) bytes += std::string{static_cast<char>(v), static_cast<char>(v >> 8)};
    return bytes;
}
std::string riff(const std::string& chunks) { return "RIFF" + le32(static_cast<uint32_t>(chunks.size() + 4)) + "WAVE" + chunks; }
std::string smpl(std::initializer_list<uint32_t> loopStarts) {
    std::string body;
    for (int32_t i = 0; i < 7; ++i) body += le32(0);
    body += le32(static_cast<uint32_t>(loopStarts.size())) + le32(0);
    for (uint32_t start : loopStarts) body += le32(0) + le32(0) + le32(start) + le32(start + 2) + le32(0) + le32(0);
    return chunk("smpl", body);
}

TEST(SampleFile, DamagedAndUnusualChunkLayouts) {
    TempFolder dir;
    const std::string path = dir.file("hand.wav");
    const auto open = [&](const std::string& bytes, int32_t streamed) {
        writeBytes(path, bytes);
        auto clip = std::make_unique<CSampleClip>();
        clip->streamed = streamed;
        EXPECT_TRUE(clip->open(path.c_str())) << clip->error.c_str();
        return clip;
    };
    for (int32_t streamed : {0, 1}) {
        // An odd "LIST" before the data, padded to even as writers do, is passed over.
        auto clip = open(riff(fmt16 + chunk("LIST", "abc") + std::string(1, '\0') + chunk("data", frames16({100, -200}))), streamed);
        EXPECT_EQ(clip->frames, 2);
        EXPECT_EQ(allFrames(*clip), (std::vector<float>{100 / 32768.0f, -200 / 32768.0f}));


        // One loop in a sampler chunk behind the data loops from its start; two loops leave the loop off
        // but the later start stands; a sampler chunk before the data counts for nothing.
        clip = open(riff(fmt16 + chunk("data", frames16({1, 2, 3, 4, 5, 6})) + smpl({3})), streamed);
        EXPECT_EQ(clip->loop, loopForward);
        EXPECT_EQ(clip->loopStart, 3);
        clip = open(riff(fmt16 + chunk("data", frames16({1, 2, 3, 4, 5, 6})) + smpl({1, 4})), streamed);
        EXPECT_EQ(clip->loop, loopOff);
        EXPECT_EQ(clip->loopStart, 4);
        EXPECT_EQ(clip->loopCount, 2);
        clip = open(riff(fmt16 + smpl({2}) + chunk("data", frames16({1, 2, 3}))), streamed);
        EXPECT_EQ(clip->loop, loopOff);
    }
}

// Programs that write to a pipe can't go back to fill in sizes: sox leaves them near 2^31, others at
// 0xFFFFFFFF. Such files hold the frames that are really there, read as the same file written whole.
TEST(SampleFile, SizesPastTheEndOfTheFileGiveTheFramesItHolds) {
    TempFolder dir;
    const std::string wav = dir.file("piped.wav"), aiff = dir.file("piped.aiff"), whole = dir.file("whole.wav");
    const std::string tone = " -n -r 8000 -b 16 -c 2 ", make = " synth 0.1 sine 300 whitenoise vol 0.5";
    sh("sox -R" + tone + quoted(whole) + make);
    sh("(sox -R" + tone + "-t wav -" + make + " | cat > " + quoted(wav) + ")");
    sh("(sox -R" + tone + "-t aiff -" + make + " | cat > " + quoted(aiff) + ")");
    std::string streaming = readBytes(wav);
    ASSERT_EQ(streaming.substr(36, 4), "data");
    streaming.replace(40, 4, "\xff\xff\xff\xff");
    const std::string unknownSize = dir.file("unknown.wav");
    writeBytes(unknownSize, streaming);
    const std::vector<int32_t> sox = soxDecode(dir, whole);
    for (const std::string& path : {wav, aiff, unknownSize}) {
        for (int32_t streamed : {0, 1}) {
            CSampleClip clip;
            clip.streamed = streamed;
            ASSERT_TRUE(clip.open(path.c_str())) << path << ": " << clip.error.c_str();
            EXPECT_EQ(clip.frames, 800) << path;
            expectSameAsSox(clip, sox, 0.0, path);
        }
    }
}

// One file opened twice, in memory and streamed; `same` reads both alike and compares every value.
struct MemoryAndStream {
    MemoryAndStream(const TempFolder& dir, const std::string& soxArgs) {
        const std::string path = dir.file("long.wav");
        sh("sox -n " + soxArgs + " " + quoted(path) + " synth 2 sine 300 whitenoise vol 0.5");
        streamed.streamed = 1;
        EXPECT_TRUE(memory.open(path.c_str()));
        EXPECT_TRUE(streamed.open(path.c_str()));
    }
    bool same(double position, float rate, uint8_t reverse) {
        memory.readInterpolated(0, 1000, l1.data(), r1.data(), position, rate, scratch.data(), 8192, reverse, 0, memory.frames);
        streamed.readInterpolated(0, 1000, l2.data(), r2.data(), position, rate, scratch.data(), 8192, reverse, 0, memory.frames);
        return l1 == l2 && r1 == r2;
    }
    CSampleClip memory, streamed;
    std::vector<float> scratch = std::vector<float>(8192), l1 = std::vector<float>(1000), r1 = l1, l2 = l1, r2 = l1;
};

TEST(SampleFile, StreamedFilesReadLikeTheFileInMemory) {
    TempFolder dir;
    // Several stream buffers long, stereo 24-bit: frames straddle the buffer ends. Forward in steps, then
    // a jump back (a loop), then reversed, at rates that don't divide a frame.
    {
        MemoryAndStream file(dir, "-r 44100 -b 24 -c 2");
        double position = 0.0;
        for (int32_t step = 0; step < 120; ++step) {
            const float rate = step % 3 == 0 ? 1.0f : 1.37f;
            if (step == 80) position = 1000.5;
            ASSERT_TRUE(file.same(position, rate, step >= 100 ? 1 : 0)) << "step " << step;
            position += 1000.0 * rate;
            file.streamed.fillWanted();
        }
    }
    // The same with a disk thread filling the buffers ahead the whole time.
    MemoryAndStream file(dir, "-r 48000 -b 16 -c 2");
    std::atomic<bool> done{false};
    std::thread disk([&] {
        while (!done.load()) {
            file.streamed.fillWanted();
            std::this_thread::yield();
        }
    });
    for (double position = 0.0; position < file.memory.frames; position += 1000.0 * 1.01) {
        if (!file.same(position, 1.01f, 0)) {
            ADD_FAILURE() << "frames differ at " << position;
            break;
        }
    }
    done.store(true);
    disk.join();
}

TEST(SampleFile, InterpolationAtRestEndsAndMirror) {
    TempFolder dir;
    const std::string path = dir.file("ramp.wav");
    writeBytes(path, riff(fmt16 + chunk("data", frames16({1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000}))));
    CSample sample;
    ASSERT_TRUE(sample.open(path.c_str()));
    std::vector<float> scratch(256), left(8), right(8);
    const auto frame = [](int32_t v) { return static_cast<float>(v) / 32768.0f; };

    // Rate 1 at whole positions: t is 0 and the frames come out unchanged, on both sides of a mono sample.
    sample.readInterpolated(0, 8, left.data(), right.data(), 0.0, 1.0f, scratch.data(), 256, 0, 0, sample.frames);
    for (int32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(left[static_cast<size_t>(i)], frame(1000 * (i + 1)));
        EXPECT_EQ(right[static_cast<size_t>(i)], left[static_cast<size_t>(i)]);
    }
    // Halfway between frames 0 and 1 the cubic sees a zero before frame 0: (-y0 + 9 y1 + 9 y2 - y3) / 16.
    sample.readInterpolated(0, 1, left.data(), right.data(), 0.5, 1.0f, scratch.data(), 256, 0, 0, sample.frames);
    EXPECT_FLOAT_EQ(left[0], (9.0f * frame(1000) + 9.0f * frame(2000) - frame(3000)) / 16.0f);
    // Past the last frame the data fades into zeros rather than reading outside.
    sample.readInterpolated(0, 3, left.data(), right.data(), 7.0, 1.0f, scratch.data(), 256, 0, 0, sample.frames);
    EXPECT_EQ(left[0], frame(8000));
    EXPECT_EQ(left[1], 0.0f);
    EXPECT_EQ(left[2], 0.0f);
    // Reversed reading of the whole range gives the frames in mirrored order.
    sample.readInterpolated(0, 8, left.data(), right.data(), 0.0, 1.0f, scratch.data(), 256, 1, 0, 8);
    for (int32_t i = 0; i < 8; ++i) EXPECT_EQ(left[static_cast<size_t>(i)], frame(1000 * (8 - i))) << i;
}

}  // namespace
