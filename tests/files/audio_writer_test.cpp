#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "files/audio_writer.h"

namespace {

using files::SampleFormat;
using files::AudioFormat;
using files::AudioWriter;

std::vector<uint8_t> readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Runs a shell command and returns its standard output; the test fails when the command does. sox warns
// on standard error that a float file's format chunk has no extension; the 16-byte chunk is what we write.
std::string run(const std::string& command, const std::filesystem::path& output) {
    auto errors = output;
    errors += ".err";
    const int status = std::system((command + " > '" + output.string() + "' 2> '" + errors.string() + "'").c_str());
    const auto bytes = readBytes(output);
    const auto errorBytes = readBytes(errors);
    EXPECT_EQ(status, 0) << command << "\n" << std::string(errorBytes.begin(), errorBytes.end());
    return {bytes.begin(), bytes.end()};
}

class WavFile : public ::testing::Test {
protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("vantrell_wav_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "_" +
               std::to_string(std::random_device{}()));  // several builds may run the suite at once
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::filesystem::path dir;
};

uint32_t le32(const std::vector<uint8_t>& b, size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
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
        EXPECT_EQ(le32(h, 4), row.dataBytes + 36);
        EXPECT_EQ(h[20] | h[21] << 8, row.tag);
        EXPECT_EQ(h[22] | h[23] << 8, row.format.channels);
        EXPECT_EQ(le32(h, 24), static_cast<uint32_t>(row.format.rate));
        EXPECT_EQ(le32(h, 28), row.byteRate);
        EXPECT_EQ(h[32] | h[33] << 8, row.align);
        EXPECT_EQ(h[34] | h[35] << 8, row.bits);
        EXPECT_EQ(le32(h, 40), row.dataBytes);
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

TEST_F(WavFile, WrittenBytesFollowTheHeader) {
    const auto path = dir / "t.wav";
    AudioWriter writer(path, {8000, 2, SampleFormat::int24});
    const float left[] = {0.5f, -1.0f}, right[] = {2.0f, -0.25f};
    writer.write(left, right, 2);
    writer.commit();
    const auto b = readBytes(path);
    ASSERT_EQ(b.size(), 44u + 12u);
    EXPECT_EQ(le32(b, 40), 12u);
    const std::vector<uint8_t> frames(b.begin() + 44, b.end());
    const std::vector<uint8_t> expected = {0x00, 0x00, 0x40, 0xFF, 0xFF, 0x7F, 0x01, 0x00, 0x80, 0x00, 0x00, 0xE0};
    EXPECT_EQ(frames, expected);
}

TEST_F(WavFile, OneChannelTakesTheMeanAndFloatKeepsTheBits) {
    const auto path = dir / "m.wav";
    AudioWriter writer(path, {8000, 1, SampleFormat::float32});
    const float left[] = {0.75f, 3.0f}, right[] = {0.25f, 1.0f};
    writer.write(left, right, 2);
    writer.commit();
    const auto b = readBytes(path);
    ASSERT_EQ(b.size(), 44u + 8u);
    float values[2];
    std::memcpy(values, b.data() + 44, 8);
    EXPECT_EQ(values[0], 0.5f);
    EXPECT_EQ(values[1], 2.0f) << "float samples are not clipped";
}

TEST_F(WavFile, AbandonedWriteLeavesTheOldFile) {
    const auto path = dir / "keep.wav";
    std::ofstream(path) << "what the user had";
    {
        AudioWriter writer(path, {44100, 2, SampleFormat::int16});
        const float zero[4] = {};
        writer.write(zero, zero, 4);
    }
    const auto b = readBytes(path);
    EXPECT_EQ(std::string(b.begin(), b.end()), "what the user had");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator()), 1)
        << "the temporary file is removed";
}

TEST_F(WavFile, CommitReplacesTheOldFile) {
    const auto path = dir / "replace.wav";
    std::ofstream(path) << "old";
    AudioWriter writer(path, {44100, 2, SampleFormat::int16});
    const float one[1] = {0.25f};
    writer.write(one, one, 1);
    writer.commit();
    EXPECT_EQ(readBytes(path).size(), 48u);
}

TEST_F(WavFile, UnwritablePathThrows) {
    EXPECT_THROW(AudioWriter(dir / "missing" / "x.wav", {44100, 2, SampleFormat::int16}), files::FileError);
}

// sox reads the files back with the rate, channel count, length and values written.
TEST_F(WavFile, SoxReadsEveryFormat) {
    struct Row {
        SampleFormat sample;
        int32_t channels;
        const char* rawType;  // how sox writes raw samples back
        files::FileType type = files::FileType::wav;
    };
    const Row rows[] = {
        {SampleFormat::int16, 2, "-e signed -b 16"},
        {SampleFormat::int24, 1, "-e signed -b 24"},
        {SampleFormat::float32, 2, "-e float -b 32"},
        {SampleFormat::int16, 1, "-e signed -b 16", files::FileType::aiff},
        {SampleFormat::int24, 2, "-e signed -b 24", files::FileType::aiff},
        {SampleFormat::int32, 2, "-e signed -b 32", files::FileType::aiff},
    };
    constexpr int32_t frames = 1000;
    std::vector<float> left(frames), right(frames);
    for (int32_t i = 0; i < frames; ++i) {
        left[static_cast<size_t>(i)] = static_cast<float>(0.9 * std::sin(i * 0.05));
        right[static_cast<size_t>(i)] = static_cast<float>(0.4 * std::cos(i * 0.021));
    }
    int index = 0;
    for (const Row& row : rows) {
        const auto path = dir / ("s" + std::to_string(index++) + (row.type == files::FileType::aiff ? ".aiff" : ".wav"));
        AudioWriter writer(path, {32000, row.channels, row.sample, row.type});
        writer.write(left.data(), right.data(), frames);
        writer.commit();
        const auto info = dir / "info.txt";
        EXPECT_EQ(run("sox --i -r '" + path.string() + "'", info), "32000\n");
        EXPECT_EQ(run("sox --i -c '" + path.string() + "'", info), std::to_string(row.channels) + "\n");
        EXPECT_EQ(run("sox --i -s '" + path.string() + "'", info), std::to_string(frames) + "\n");
        const auto raw = dir / "raw.bin";
        run("sox '" + path.string() + "' -t raw " + row.rawType + " -L '" + raw.string() + "'", info);
        const auto bytes = readBytes(raw);
        ASSERT_EQ(bytes.size(), static_cast<size_t>(frames * row.channels * files::bitsOf(row.sample) / 8));
        const auto* data = bytes.data();
        for (int32_t i = 0; i < frames; ++i) {
            for (int32_t c = 0; c < row.channels; ++c) {
                const float x = row.channels == 1 ? 0.5f * (left[static_cast<size_t>(i)] + right[static_cast<size_t>(i)])
                                                  : (c == 0 ? left : right)[static_cast<size_t>(i)];
                switch (row.sample) {
                case SampleFormat::int16:
                    ASSERT_EQ(static_cast<int16_t>(data[0] | data[1] << 8), files::toInt16(x));
                    data += 2;
                    break;
                case SampleFormat::int24: {
                    int32_t v = data[0] | data[1] << 8 | data[2] << 16;
                    if (v & 0x800000) v -= 0x1000000;
                    ASSERT_EQ(v, files::toInt24(x));
                    data += 3;
                    break;
                }
                case SampleFormat::int32: {
                    int32_t v = 0;
                    std::memcpy(&v, data, 4);
                    ASSERT_EQ(v, files::toInt32(x));
                    data += 4;
                    break;
                }
                case SampleFormat::float32: {
                    float v = 0.0f;
                    std::memcpy(&v, data, 4);
                    ASSERT_NEAR(v, x, 1e-6) << "sox passes samples through 32-bit integers";
                    data += 4;
                    break;
                }
                }
            }
        }
    }
}

}  // namespace
