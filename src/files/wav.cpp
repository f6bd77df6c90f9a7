#include "files/wav.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <system_error>

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

float clipped(float x) { return std::isnan(x) ? 0.0f : std::clamp(x, -1.0f, 1.0f); }

}  // namespace

int32_t bitsOf(SampleFormat sample) {
    switch (sample) {
    case SampleFormat::int16: return 16;
    case SampleFormat::int24: return 24;
    case SampleFormat::float32: return 32;
    }
    return 16;
}

std::array<uint8_t, wavHeaderBytes> wavHeader(const WavFormat& format, uint32_t frames) {
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

int16_t toInt16(float x) { return static_cast<int16_t>(std::lround(clipped(x) * 32767.0f)); }

int32_t toInt24(float x) { return static_cast<int32_t>(std::lround(static_cast<double>(clipped(x)) * 8388607.0)); }

WavWriter::WavWriter(std::filesystem::path target, WavFormat format) : target_(std::move(target)), format_(format) {
    if (format_.channels != 1 && format_.channels != 2) throw FileError("WAV files here have one or two channels");
    if (format_.rate <= 0) throw FileError("the sample rate must be above zero");
    temporary_ = target_;
    temporary_ += ".partial";
    file_.reset(std::fopen(temporary_.c_str(), "wb"));
    if (!file_) fail("cannot create");
    const auto header = wavHeader(format_, 0);
    if (std::fwrite(header.data(), 1, header.size(), file_.get()) != header.size()) {
        file_.reset();
        std::error_code ignored;
        std::filesystem::remove(temporary_, ignored);
        fail("cannot write");
    }
}

WavWriter::~WavWriter() {
    if (committed_) return;
    file_.reset();
    std::error_code ignored;
    std::filesystem::remove(temporary_, ignored);
}

void WavWriter::write(const float* left, const float* right, int32_t frames) {
    if (frames <= 0) return;
    const int32_t bits = bitsOf(format_.sample);
    const size_t sampleBytes = static_cast<size_t>(bits / 8);
    const size_t frameBytes = sampleBytes * static_cast<size_t>(format_.channels);
    constexpr int64_t maxDataBytes = std::numeric_limits<uint32_t>::max() - 36;
    if ((frames_ + frames) * static_cast<int64_t>(frameBytes) > maxDataBytes) fail("too long for a WAV file:");
    bytes_.resize(static_cast<size_t>(frames) * frameBytes);
    uint8_t* out = bytes_.data();
    const auto store = [&](float x) {
        switch (format_.sample) {
        case SampleFormat::int16:
            put16(out, static_cast<uint16_t>(toInt16(x)));
            break;
        case SampleFormat::int24: {
            const auto v = static_cast<uint32_t>(toInt24(x));
            out[0] = static_cast<uint8_t>(v);
            out[1] = static_cast<uint8_t>(v >> 8);
            out[2] = static_cast<uint8_t>(v >> 16);
            break;
        }
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

void WavWriter::commit() {
    if (committed_) return;
    if (std::fseek(file_.get(), 0, SEEK_SET) != 0) fail("cannot seek in");
    const auto header = wavHeader(format_, static_cast<uint32_t>(frames_));
    writeBytes(header.data(), header.size());
    if (std::fflush(file_.get()) != 0) fail("cannot write");
    if (std::fclose(file_.release()) != 0) fail("cannot close");
    std::error_code error;
    std::filesystem::rename(temporary_, target_, error);
    if (error) fail("cannot replace");
    committed_ = true;
}

void WavWriter::writeBytes(const void* data, size_t size) {
    if (std::fwrite(data, 1, size, file_.get()) != size) fail("cannot write");
}

void WavWriter::fail(const char* what) const {
    throw FileError(std::string(what) + " " + target_.string());
}

}  // namespace files
