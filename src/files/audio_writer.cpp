#include "files/audio_writer.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <system_error>

#include "platform/file_replace.h"

namespace files {

namespace {

void put16(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
}

void put32(uint8_t* at, uint32_t value) {
    put16(at, value & 0xFFFFu);
    put16(at + 2, value >> 16);
}

void put16be(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}

void put32be(uint8_t* at, uint32_t value) {
    put16be(at, value >> 16);
    put16be(at + 2, value & 0xFFFFu);
}

float clipped(float x) { return std::isnan(x) ? 0.0f : std::clamp(x, -1.0f, 1.0f); }

// std::lround of a value well inside the int32 range, in plain arithmetic that the compiler can run on
// several samples at once. Taking away the part towards zero leaves the fraction exactly.
int32_t roundHalfAway(float x) {
    const auto whole = static_cast<int32_t>(x);
    const float rest = x - static_cast<float>(whole);
    return whole + static_cast<int32_t>(rest >= 0.5f) - static_cast<int32_t>(rest <= -0.5f);
}

int16_t sample16(float x) { return static_cast<int16_t>(roundHalfAway(clipped(x) * 32767.0f)); }

}  // namespace

int32_t bitsOf(SampleFormat sample) {
    switch (sample) {
    case SampleFormat::int16: return 16;
    case SampleFormat::int24: return 24;
    case SampleFormat::int32:
    case SampleFormat::float32: return 32;
    }
    return 16;
}

FileType fileTypeOf(const std::filesystem::path& path) {
    std::string text = path.string();
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text.find(".AIF") != std::string::npos ? FileType::aiff : FileType::wav;
}

bool stores(FileType type, SampleFormat sample) {
    if (type == FileType::wav) return sample != SampleFormat::int32;
    return sample != SampleFormat::float32;
}

std::array<uint8_t, wavHeaderBytes> wavHeader(const AudioFormat& format, uint32_t frames) {
    const auto bits = static_cast<uint32_t>(bitsOf(format.sample));
    const auto channels = static_cast<uint32_t>(format.channels);
    const uint32_t frameBytes = bits / 8 * channels;
    const uint32_t bytes = frames * frameBytes;
    const auto rate = static_cast<uint32_t>(format.rate);
    std::array<uint8_t, wavHeaderBytes> h{};
    std::memcpy(&h[0], "RIFF", 4);
    put32(&h[4], bytes + 36);
    std::memcpy(&h[8], "WAVE", 4);
    std::memcpy(&h[12], "fmt ", 4);
    put32(&h[16], 16);
    put16(&h[20], format.sample == SampleFormat::float32 ? 3 : 1);
    put16(&h[22], channels);
    put32(&h[24], rate);
    put32(&h[28], rate * frameBytes);
    put16(&h[32], frameBytes);
    put16(&h[34], bits);
    std::memcpy(&h[36], "data", 4);
    put32(&h[40], bytes);
    return h;
}

std::array<uint8_t, aiffHeaderBytes> aiffHeader(const AudioFormat& format, uint32_t frames) {
    const auto bits = static_cast<uint32_t>(bitsOf(format.sample));
    const auto channels = static_cast<uint32_t>(format.channels);
    const uint32_t bytes = frames * (bits / 8 * channels);
    const auto rate = static_cast<uint32_t>(format.rate);
    std::array<uint8_t, aiffHeaderBytes> h{};
    std::memcpy(&h[0], "FORM", 4);
    put32be(&h[4], bytes + 46);
    std::memcpy(&h[8], "AIFF", 4);
    std::memcpy(&h[12], "COMM", 4);
    put32be(&h[16], 18);
    put16be(&h[20], channels);
    put32be(&h[22], frames);
    put16be(&h[26], bits);
    // The rate as an 80-bit float: exponent 16383 + the top bit's place, the mantissa from bit 63 down.
    const int32_t top = std::bit_width(rate) - 1;
    h[28] = 0x40;
    h[29] = static_cast<uint8_t>(top - 1);
    put32be(&h[30], rate << (31 - top));
    std::memcpy(&h[38], "SSND", 4);
    put32be(&h[42], bytes + 8);
    return h;
}

int16_t toInt16(float x) { return sample16(x); }

int32_t toInt24(float x) { return static_cast<int32_t>(std::lround(static_cast<double>(clipped(x)) * 8388607.0)); }

int32_t toInt32(float x) { return static_cast<int32_t>(std::lround(static_cast<double>(clipped(x)) * 2147483647.0)); }

AudioWriter::AudioWriter(std::filesystem::path target, AudioFormat format) : target_(std::move(target)), format_(format) {
    if (format_.channels != 1 && format_.channels != 2) throw FileError("audio files here have one or two channels");
    if (format_.rate <= 0) throw FileError("the sample rate must be above zero");
    if (!stores(format_.type, format_.sample))
        throw FileError(format_.type == FileType::wav ? "WAV files here hold 16 or 24 bit integers or 32 bit floats"
                                                      : "AIFF files hold 16, 24 or 32 bit integers");
    replace_ = std::make_unique<platform::FileReplace>(target_.string(), false);
    if (!replace_->isOpen()) throw FileError(replace_->error());
    file_ = replace_->file();
    writeHeader();
}

// replace_ removes the temporary file unless the writer committed.
AudioWriter::~AudioWriter() = default;

void AudioWriter::write(const float* left, const float* right, int32_t frames) {
    if (frames <= 0) return;
    const int32_t bits = bitsOf(format_.sample);
    const size_t sampleBytes = static_cast<size_t>(bits / 8);
    const size_t frameBytes = sampleBytes * static_cast<size_t>(format_.channels);
    constexpr int64_t maxDataBytes = std::numeric_limits<uint32_t>::max() - 46;
    if ((frames_ + frames) * static_cast<int64_t>(frameBytes) > maxDataBytes) fail("too long for an audio file:");
    const bool big = format_.type == FileType::aiff;
    bytes_.resize(static_cast<size_t>(frames) * frameBytes);
    uint8_t* out = bytes_.data();
    if (format_.sample == SampleFormat::int16 && format_.channels == 2 && !big) {
        // The usual render, in a loop of its own.
        for (int32_t i = 0; i < frames; ++i) {
            put16(out + 4 * i, static_cast<uint16_t>(sample16(left[i])));
            put16(out + 4 * i + 2, static_cast<uint16_t>(sample16(right[i])));
        }
        writeBytes(bytes_.data(), bytes_.size());
        frames_ += frames;
        return;
    }
    const auto store = [&](float x) {
        switch (format_.sample) {
        case SampleFormat::int16:
            if (big) put16be(out, static_cast<uint16_t>(toInt16(x)));
            else put16(out, static_cast<uint16_t>(toInt16(x)));
            break;
        case SampleFormat::int24: {
            const auto v = static_cast<uint32_t>(toInt24(x));
            out[big ? 2 : 0] = static_cast<uint8_t>(v);
            out[1] = static_cast<uint8_t>(v >> 8);
            out[big ? 0 : 2] = static_cast<uint8_t>(v >> 16);
            break;
        }
        case SampleFormat::int32:
            put32be(out, static_cast<uint32_t>(toInt32(x)));
            break;
        case SampleFormat::float32: {
            uint32_t v = 0;
            std::memcpy(&v, &x, 4);
            put32(out, v);
            break;
        }
        }
        out += sampleBytes;
    };
    for (int32_t i = 0; i < frames; ++i) {
        if (format_.channels == 1) {
            store(0.5f * (left[i] + right[i]));
        } else {
            store(left[i]);
            store(right[i]);
        }
    }
    writeBytes(bytes_.data(), bytes_.size());
    frames_ += frames;
}

void AudioWriter::writeHeader() {
    // A stream gets the header once, before its frames: it claims as many whole frames as the sizes hold.
    const auto frameBytes = static_cast<uint32_t>(bitsOf(format_.sample) / 8 * format_.channels);
    const uint32_t frames = replace_->isStream() ? (std::numeric_limits<uint32_t>::max() - aiffHeaderBytes) / frameBytes
                                                 : static_cast<uint32_t>(frames_);
    if (format_.type == FileType::aiff) {
        const auto header = aiffHeader(format_, frames);
        writeBytes(header.data(), header.size());
    } else {
        const auto header = wavHeader(format_, frames);
        writeBytes(header.data(), header.size());
    }
}

void AudioWriter::commit() {
    if (committed_) return;
    if (!replace_->isStream()) {
        if (std::fseek(file_, 0, SEEK_SET) != 0) fail("cannot seek in");
        writeHeader();
    }
    file_ = nullptr;
    if (!replace_->commit()) throw FileError(replace_->error());
    committed_ = true;
}

void AudioWriter::writeBytes(const void* data, size_t size) {
    if (file_ && std::fwrite(data, 1, size, file_) == size) return;
    throw FileError("cannot write " + target_.string() + (file_ ? std::string(": ") + std::strerror(errno) : std::string()));
}

void AudioWriter::fail(const char* what) const {
    throw FileError(std::string(what) + " " + target_.string());
}

}  // namespace files
