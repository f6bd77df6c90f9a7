#pragma once
// Audio file output: WAV of 16 or 24 bit integers or 32 bit floats, little-endian, and AIFF of 16, 24 or
// 32 bit integers, big-endian; one or two channels.
//
// The writer saves by the rules of platform::FileReplace: a plain file gets a temporary file beside it
// that is renamed over it only once every frame and the final header are on disk, so a failed or
// abandoned write never damages the file the user already had. A device or FIFO is written as the frames
// come, with a header that claims the longest length the format holds, since it cannot be patched.

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

namespace platform {
class FileReplace;
}

namespace files {

enum class SampleFormat { int16, int24, int32, float32 };
enum class FileType { wav, aiff };

struct AudioFormat {
    int32_t rate = 44100;
    int32_t channels = 2;
    SampleFormat sample = SampleFormat::int16;
    FileType type = FileType::wav;
};

int32_t bitsOf(SampleFormat sample);
// AIFF when the path holds ".aif" in any case, else WAV.
FileType fileTypeOf(const std::filesystem::path& path);
// Whether the file type stores this sample format: WAV has no 32 bit integers, AIFF no floats.
bool stores(FileType type, SampleFormat sample);

// Any failure to create, write or replace a file; what() names the path.
class FileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

constexpr int32_t wavHeaderBytes = 44;
constexpr int32_t aiffHeaderBytes = 54;
std::array<uint8_t, wavHeaderBytes> wavHeader(const AudioFormat& format, uint32_t frames);
std::array<uint8_t, aiffHeaderBytes> aiffHeader(const AudioFormat& format, uint32_t frames);

// The integer frame values: clipped to -1..1, scaled, rounded half away from zero. NaN writes 0.
int16_t toInt16(float x);
int32_t toInt24(float x);
int32_t toInt32(float x);

class AudioWriter {
public:
    // Creates the temporary file and writes a header with no frames. Throws FileError, also when the
    // target is nothing a file can be saved to (a folder, a missing folder).
    AudioWriter(std::filesystem::path target, AudioFormat format);
    // Without commit the temporary file goes and the target stays as it was.
    ~AudioWriter();
    AudioWriter(const AudioWriter&) = delete;
    AudioWriter& operator=(const AudioWriter&) = delete;

    // Appends frames; a one-channel file takes 0.5 x (left + right). Throws FileError.
    void write(const float* left, const float* right, int32_t frames);
    // Rewrites the header with the final count, flushes, closes and renames over the target.
    void commit();

    const AudioFormat& format() const { return format_; }
    int64_t frames() const { return frames_; }
    const std::filesystem::path& target() const { return target_; }

private:
    void writeHeader();
    void writeBytes(const void* data, size_t size);
    [[noreturn]] void fail(const char* what) const;

    std::filesystem::path target_;
    AudioFormat format_;
    std::unique_ptr<platform::FileReplace> replace_;
    // Owned by replace_.
    std::FILE* file_ = nullptr;
    std::vector<uint8_t> bytes_;
    int64_t frames_ = 0;
    bool committed_ = false;
};

}  // namespace files
