#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/temp_folder.h"
#include "files/audio_writer.h"

namespace {

using files::AudioFormat;
using files::AudioWriter;
using files::SampleFormat;

std::vector<uint8_t> bytesOf(const std::string& path) {
    const std::string text = readBytes(path);
    return {text.begin(), text.end()};
}

uint32_t le32(const std::vector<uint8_t>& b, size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

// The standard output of a shell command; the test fails when the command does.
std::string run(const TempFolder& dir, const std::string& command) {
    const std::string output = dir.file("output.txt");
    EXPECT_EQ(std::system((command + " > '" + output + "' 2>/dev/null").c_str()), 0) << command;
    return readBytes(output);
}

TEST(WavHeader, StereoSixteenBitLayout) {
    const auto h = files::wavHeader(AudioFormat{48000, 2, SampleFormat::int16}, 10);
    const std::vector<uint8_t> expected = {
        'R', 'I', 'F', 'F', 76, 0, 0, 0,                                   // 40 data bytes + 36
        'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0,
        1, 0, 2, 0,                                                        // integer, two channels
        0x80, 0xBB, 0, 0,                                                  // 48000
        0x00, 0xEE, 0x02, 0,                                               // 192000 bytes a second
        4, 0, 16, 0,                                                       // block align, bits
        'd', 'a', 't', 'a', 40, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(h.begin(), h.end()), expected);
}

TEST(WavHeader, FormatTagRatesAndAlignFollowTheSampleFormat) {
    struct Row {
        AudioFormat format;
        uint32_t frames;
        uint16_t tag, align, bits;
        uint32_t byteRate, dataBytes;
    };
    const Row rows[] = {
        {{44100, 1, SampleFormat::int16}, 3, 1, 2, 16, 88200, 6},
        {{44100, 2, SampleFormat::int24}, 5, 1, 6, 24, 264600, 30},
        {{96000, 2, SampleFormat::float32}, 7, 3, 8, 32, 768000, 56},
        {{22050, 1, SampleFormat::float32}, 0, 3, 4, 32, 88200, 0},
    };
    for (const Row& row : rows) {
        const auto a = files::wavHeader(row.format, row.frames);
        const std::vector<uint8_t> h(a.begin(), a.end());
        const auto le16 = [&](size_t at) { return h[at] | h[at + 1] << 8; };
        EXPECT_EQ(le32(h, 4), row.dataBytes + 36);
        EXPECT_EQ(std::make_tuple(le16(20), le16(22), le32(h, 24), le32(h, 28), le16(32), le16(34), le32(h, 40)),
                  std::make_tuple(row.tag, row.format.channels, static_cast<uint32_t>(row.format.rate), row.byteRate,
                                  row.align, row.bits, row.dataBytes));
    }
}

TEST(AiffHeader, RateAsEightyBitFloatAndBigEndianCounts) {
    const auto h = files::aiffHeader(AudioFormat{44100, 2, SampleFormat::int24, files::FileType::aiff}, 3);
    const std::vector<uint8_t> expected = {
        'F', 'O', 'R', 'M', 0, 0, 0, 18 + 46, 'A', 'I', 'F', 'F', 'C', 'O', 'M', 'M', 0, 0, 0, 18,
        0, 2, 0, 0, 0, 3, 0, 24,                                      // channels, frames, bits
        0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0,                     // 44100 as an 80-bit float
        'S', 'S', 'N', 'D', 0, 0, 0, 18 + 8, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(h.begin(), h.end()), expected);
    EXPECT_EQ(files::fileTypeOf("/x/Song.AIF"), files::FileType::aiff);
    EXPECT_EQ(files::fileTypeOf("/x/song.aiff"), files::FileType::aiff);
    EXPECT_EQ(files::fileTypeOf("/x/song.wav"), files::FileType::wav);
}

TEST(WavConversion, ClipScaleAndRoundHalfAwayFromZero) {
    struct Row {
        float x;
        int16_t i16;
        int32_t i24;
    };
    const Row rows[] = {
        {0.0f, 0, 0},
        {1.0f, 32767, 8388607},
        {-1.0f, -32767, -8388607},
        {1.5f, 32767, 8388607},
        {-7.0f, -32767, -8388607},
        {0.5f, 16384, 4194304},       // 16383.5 and 4194303.5 round up
        {-0.5f, -16384, -4194304},
        {1.0f / 32767.0f * 0.49f, 0, 125},
        {1.0f / 32767.0f * 0.51f, 1, 131},
        {std::nanf(""), 0, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(files::toInt16(row.x), row.i16) << row.x;
        EXPECT_EQ(files::toInt24(row.x), row.i24) << row.x;
    }
}

TEST(WavFile, WrittenFramesFollowTheHeaderAndOneChannelTakesTheMean) {
    TempFolder dir;
    AudioWriter stereo(dir.file("t.wav"), {8000, 2, SampleFormat::int24});
    const float left[] = {0.5f, -1.0f}, right[] = {2.0f, -0.25f};
    stereo.write(left, right, 2);
    stereo.commit();
    const auto b = bytesOf(dir.file("t.wav"));
    ASSERT_EQ(b.size(), 44u + 12u);
    EXPECT_EQ(le32(b, 40), 12u);
    const std::vector<uint8_t> frames(b.begin() + 44, b.end());
    EXPECT_EQ(frames, (std::vector<uint8_t>{0x00, 0x00, 0x40, 0xFF, 0xFF, 0x7F, 0x01, 0x00, 0x80, 0x00, 0x00, 0xE0}));

    AudioWriter mono(dir.file("m.wav"), {8000, 1, SampleFormat::float32});
    const float monoLeft[] = {0.75f, 3.0f}, monoRight[] = {0.25f, 1.0f};
    mono.write(monoLeft, monoRight, 2);
    mono.commit();
    const auto m = bytesOf(dir.file("m.wav"));
    ASSERT_EQ(m.size(), 44u + 8u);
    float values[2];
    std::memcpy(values, m.data() + 44, 8);
    EXPECT_EQ(values[0], 0.5f);
    EXPECT_EQ(values[1], 2.0f) << "float samples are not clipped";
}

TEST(WavFile, TheOldFileStaysUntilCommit) {
    TempFolder dir;
    const std::string path = dir.file("keep.wav");
    writeBytes(path, "what the user had");
    const float one[4] = {0.25f};
    {
        AudioWriter abandoned(path, {44100, 2, SampleFormat::int16});
        abandoned.write(one, one, 4);
    }
    EXPECT_EQ(readBytes(path), "what the user had");
    EXPECT_EQ(dir.entries(), 1u) << "the temporary file is removed";
    AudioWriter writer(path, {44100, 2, SampleFormat::int16});
    writer.write(one, one, 1);
    writer.commit();
    EXPECT_EQ(readBytes(path).size(), 48u);
    EXPECT_THROW(AudioWriter(dir.file("missing/x.wav"), {44100, 2, SampleFormat::int16}), files::FileError);
}

// sox reads the files back with the rate, channel count, length and values written.
TEST(WavFile, SoxReadsEveryFormat) {
    struct Row {
        SampleFormat sample;
        int32_t channels;
        files::FileType type = files::FileType::wav;
    };
    const Row rows[] = {
        {SampleFormat::int16, 2},
        {SampleFormat::int24, 1},
        {SampleFormat::float32, 2},
        {SampleFormat::int16, 1, files::FileType::aiff},
        {SampleFormat::int24, 2, files::FileType::aiff},
        {SampleFormat::int32, 2, files::FileType::aiff},
    };
    constexpr int32_t frames = 1000;
    std::vector<float> left(frames), right(frames);
    for (size_t i = 0; i < frames; ++i) {
        left[i] = static_cast<float>(0.9 * std::sin(static_cast<double>(i) * 0.05));
        right[i] = static_cast<float>(0.4 * std::cos(static_cast<double>(i) * 0.021));
    }
    TempFolder dir;
    for (const Row& row : rows) {
        const std::string path = dir.file(row.type == files::FileType::aiff ? "s.aiff" : "s.wav");
        SCOPED_TRACE(path + ", " + std::to_string(files::bitsOf(row.sample)) + " bits");
        AudioWriter writer(path, {32000, row.channels, row.sample, row.type});
        writer.write(left.data(), right.data(), frames);
        writer.commit();
        EXPECT_EQ(run(dir, "sox --i -r '" + path + "'"), "32000\n");
        EXPECT_EQ(run(dir, "sox --i -c '" + path + "'"), std::to_string(row.channels) + "\n");
        EXPECT_EQ(run(dir, "sox --i -s '" + path + "'"), std::to_string(frames) + "\n");
        // sox hands every format back as 32-bit integers: the narrower ones shifted up, floats scaled.
        const std::string raw = dir.file("raw.s32");
        run(dir, "sox '" + path + "' -t s32 -L '" + raw + "'");
        const auto bytes = bytesOf(raw);
        ASSERT_EQ(bytes.size(), static_cast<size_t>(frames * row.channels * 4));
        for (size_t i = 0; i < frames; ++i) {
            for (int32_t c = 0; c < row.channels; ++c) {
                const float x = row.channels == 1 ? 0.5f * (left[i] + right[i]) : (c == 0 ? left : right)[i];
                int32_t v = 0;
                std::memcpy(&v, bytes.data() + (i * row.channels + c) * 4, 4);
                switch (row.sample) {
                case SampleFormat::int16: ASSERT_EQ(v, files::toInt16(x) * 65536) << i; break;
                case SampleFormat::int24: ASSERT_EQ(v, files::toInt24(x) * 256) << i; break;
                case SampleFormat::int32: ASSERT_EQ(v, files::toInt32(x)) << i; break;
                case SampleFormat::float32: ASSERT_NEAR(v / 2147483648.0, x, 1e-6) << i; break;
                }
            }
        }
    }
}

}  // namespace
