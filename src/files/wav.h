#pragma once
// WAV output: 16 or 24 bit integer or 32 bit float, little-endian, one or two channels.
//
// The writer works on a temporary file beside the target and only renames it over the target once
// every frame and the final header are on disk, so a failed or abandoned write never damages the file
// the user already had.

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

namespace files {

enum class SampleFormat { int16, int24, float32 };

struct WavFormat {
    int32_t rate = 44100;
    int32_t channels = 2;
    SampleFormat sample = SampleFormat::int16;
};

int32_t bitsOf(SampleFormat sample);

// Any failure to create, write or replace a file; what() names the path.
class FileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

constexpr int32_t wavHeaderBytes = 44;
std::array<uint8_t, wavHeaderBytes> wavHeader(const WavFormat& format, uint32_t frames);

// The integer frame values: clipped to -1..1, scaled, rounded half away from zero. NaN writes 0.
int16_t toInt16(float x);
int32_t toInt24(float x);

class WavWriter {
public:
    // Creates the temporary file and writes a header with no frames. Throws FileError.
    WavWriter(std::filesystem::path target, WavFormat format);
    // Without commit the temporary file goes and the target stays as it was.
    ~WavWriter();
    WavWriter(const WavWriter&) = delete;
    WavWriter& operator=(const WavWriter&) = delete;

    // Appends frames; a one-channel file takes 0.5 x (left + right). Throws FileError.
    void write(const float* left, const float* right, int32_t frames);
    // Rewrites the header with the final count, flushes, closes and renames over the target.
    void commit();

    const WavFormat& format() const { return format_; }
    int64_t frames() const { return frames_; }
    const std::filesystem::path& target() const { return target_; }

private:
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    void writeBytes(const void* data, size_t size);
    [[noreturn]] void fail(const char* what) const;

    std::filesystem::path target_;
    std::filesystem::path temporary_;
    WavFormat format_;
    std::unique_ptr<std::FILE, Closer> file_;
    std::vector<uint8_t> bytes_;
    int64_t frames_ = 0;
    bool committed_ = false;
};

}  // namespace files
