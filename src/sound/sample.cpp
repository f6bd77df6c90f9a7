#include "sound/sample.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace {

// Bytes kept in memory for one sample at most: a declared size beyond the file reads as zeros anyway.
constexpr int64_t maxFrameIndex = std::numeric_limits<int32_t>::max();

uint32_t le32(const uint8_t* b) { return b[0] | (b[1] << 8) | (b[2] << 16) | (uint32_t{b[3]} << 24); }
uint16_t le16(const uint8_t* b) { return static_cast<uint16_t>(b[0] | (b[1] << 8)); }
uint32_t be32(const uint8_t* b) { return (uint32_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8) | b[3]; }
uint16_t be16(const uint8_t* b) { return static_cast<uint16_t>((b[0] << 8) | b[1]); }

bool readExact(std::FILE* f, void* buffer, size_t length) { return std::fread(buffer, 1, length, f) == length; }

int64_t tellOf(std::FILE* f) { return static_cast<int64_t>(ftello(f)); }
bool seekTo(std::FILE* f, int64_t position) { return fseeko(f, static_cast<off_t>(position), SEEK_SET) == 0; }

bool isChunkId(const uint8_t* id) {
    return std::all_of(id, id + 4, [](uint8_t c) { return c >= 0x20 && c < 0x7F; });
}

// Where the chunk after one of `size` bytes at `end` starts. Chunks are padded to an even size by most
// writers; an odd chunk whose unpadded successor doesn't read as a chunk id is taken as padded.
int64_t nextChunk(std::FILE* f, int64_t end, uint32_t size, int64_t length) {
    if ((size & 1u) == 0 || end + 1 > length) return end;
    uint8_t id[4];
    if (seekTo(f, end) && readExact(f, id, 4) && isChunkId(id)) return end;
    return end + 1;
}

// The highest sample rate recordings are made at. A header beyond it is damage, and playing it would
// walk thousands of frames for every frame heard.
constexpr uint32_t maxSampleRate = 384000;

CString unsupportedRate(uint32_t rate) {
    return concat(concat("A sample rate of ", CString(std::to_string(rate).c_str())), " Hz is not supported");
}

float clean(float x) { return std::isfinite(x) ? x : 0.0f; }

// The four bytes of an extensible format's sub-format that carry the plain format tag.
constexpr int32_t extensibleTag = 0xFFFE;

}  // namespace

CSample::CSample() : CObject(0, 0) {}

CSample::~CSample() = default;

void CSample::close() {
    platform::ScopedLock guard(lock);
    file.reset();
    readFile.reset();
}

bool CSample::refuse(const char* why) {
    valid = 0;
    if (error.isEmpty()) error = why;
    return false;
}

bool CSample::open(const CString& filePath) {
    close();
    valid = 0;
    loop = loopOff;
    loopCount = 0;
    bigEndian = 0;
    error = CString();
    format = CString();
    data.reset();
    dataBytes = 0;
    peaks.clear();
    for (StreamBuffer& buffer : buffers) buffer.state.store(bufferEmpty, std::memory_order_relaxed);
    path = filePath;

    File f(std::fopen(path.c_str(), "rb"));
    if (!f) return refuse("The file cannot be opened");
    int64_t length = 0;
    if (fseeko(f.get(), 0, SEEK_END) == 0) length = tellOf(f.get());
    seekTo(f.get(), 0);

    uint8_t head[12];
    if (!readExact(f.get(), head, 12)) return refuse("The file is too short for an audio file");
    bool ok = false;
    if (std::memcmp(head, "RIFF", 4) == 0) {
        format = "WAV";
        if (std::memcmp(head + 8, "WAVE", 4) != 0) return refuse("A RIFF file that holds no WAVE audio");
        ok = walkWav(f.get(), length);
    } else if (std::memcmp(head, "FORM", 4) == 0) {
        format = "AIFF";
        bigEndian = 1;
        if (std::memcmp(head + 8, "AIFC", 4) == 0) return refuse("Compressed AIFF (AIFF-C) files are not supported");
        if (std::memcmp(head + 8, "AIFF", 4) != 0) return refuse("A FORM file that holds no AIFF audio");
        ok = walkAiff(f.get(), length);
    } else {
        return refuse("Not a WAV or AIFF file");
    }
    if (!ok || !valid) return refuse("The file holds no audio data");

    bytesPerFrame = bits / 8 * channels;
    invRate = 1.0f / sampleRate;
    if (streamed) {
        readFile.reset(std::fopen(path.c_str(), "rb"));
        if (!readFile) platform::debugLine("Error fh2");
        file = std::move(f);
        for (StreamBuffer& buffer : buffers)
            if (!buffer.data) buffer.data = std::make_unique_for_overwrite<uint8_t[]>(streamBufferBytes);
    } else {
        buildPeaks();
    }
    return true;
}

bool CSample::walkWav(std::FILE* f, int64_t length) {
    bool haveFormat = false;
    int64_t position = 12;
    while (position + 8 <= length) {
        uint8_t chunk[8];
        if (!seekTo(f, position) || !readExact(f, chunk, 8)) break;
        const int64_t body = position + 8;
        uint32_t size = le32(chunk + 4);
        // Programs that write to a pipe can't go back to fill in the size and leave 0xFFFFFFFF; a data
        // chunk is read as far as the file really goes, whatever its header claims.
        if (std::memcmp(chunk, "data", 4) == 0) size = static_cast<uint32_t>(std::min<int64_t>(size, length - body));
        const int64_t end = body + size;
        if (std::memcmp(chunk, "fmt ", 4) == 0) {
            uint8_t fmt[40] = {};
            if (size < 16 || !readExact(f, fmt, std::min<size_t>(size, sizeof fmt)))
                return refuse("The WAV format chunk is damaged");
            int32_t tag = le16(fmt);
            if (tag == extensibleTag && size >= 26) tag = le16(fmt + 24);
            const int32_t chans = le16(fmt + 2);
            const uint32_t rate = le32(fmt + 4);
            const int32_t depth = le16(fmt + 14);
            const bool integer = tag == 1 && (depth == 16 || depth == 24);
            const bool floating = tag == 3 && depth == 32;
            if (!integer && !floating) {
                error = tag == 1 ? concat(concat("WAV files of ", intToString(depth)), " bit integers are not supported")
                        : tag == 3 ? concat(concat("WAV files of ", intToString(depth)), " bit floats are not supported")
                                   : CString("Compressed WAV files are not supported");
                return refuse("");
            }
            if (chans != 1 && chans != 2) return refuse("Only mono and stereo files are supported");
            if (rate == 0) return refuse("The file gives no sample rate");
            if (rate > maxSampleRate) return refuse(unsupportedRate(rate).c_str());
            channels = chans;
            bits = depth;
            sampleRate = static_cast<float>(rate);
            haveFormat = true;
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            if (!haveFormat) return refuse("The WAV data comes before its format");
            const int32_t frameBytes = bits / 8 * channels;
            frames = static_cast<int32_t>(std::min<int64_t>(size / frameBytes, maxFrameIndex));
            if (streamed) {
                dataOffset = body;
                dataBytes = 0;
            } else {
                readData(f, static_cast<int64_t>(frames) * frameBytes);
            }
            valid = 1;
            loop = loopOff;
        } else if (std::memcmp(chunk, "smpl", 4) == 0) {
            uint8_t fields[36];
            if (size >= 36 && readExact(f, fields, 36)) {
                const uint32_t loops = le32(fields + 28);
                loopCount = static_cast<int32_t>(std::min<uint32_t>(loops, (size - 36) / 24));
                if (loops == 1) loop = loopForward;
                for (int32_t i = 0; i < loopCount; ++i) {
                    uint8_t entry[24];
                    if (!readExact(f, entry, 24)) break;
                    loopStart = static_cast<int32_t>(std::min<uint32_t>(le32(entry + 8), maxFrameIndex));
                }
            }
        }
        position = nextChunk(f, end, size, length);
    }
    return true;
}

bool CSample::walkAiff(std::FILE* f, int64_t length) {
    bool haveCommon = false;
    // Bytes of sound the file really holds, which bound the frames the common chunk declares.
    int64_t soundBytes = -1;
    int64_t position = 12;
    while (position + 8 <= length) {
        uint8_t chunk[8];
        if (!seekTo(f, position) || !readExact(f, chunk, 8)) break;
        const uint32_t size = be32(chunk + 4);
        const int64_t body = position + 8;
        const int64_t end = body + size;
        if (std::memcmp(chunk, "COMM", 4) == 0) {
            uint8_t comm[18];
            if (size < 18 || !readExact(f, comm, 18)) return refuse("The AIFF common chunk is damaged");
            const int32_t chans = be16(comm);
            const uint32_t count = be32(comm + 2);
            const int32_t depth = be16(comm + 6);
            // The rate as an 80-bit float: the top 32 bits of the mantissa, shifted by the exponent.
            const uint32_t m = be32(comm + 10);
            const int32_t e = comm[9];
            uint32_t rate = 0;
            if ((comm[8] & 0x7F) == 0x40 && e <= 30) {
                const int32_t shift = 30 - e;
                rate = shift >= 32 ? 0 : shift == 0 ? m : (m >> shift) + ((m >> (shift - 1)) & 1u);
            }
            if (depth != 16 && depth != 24 && depth != 32)
                return refuse(concat(concat("AIFF files of ", intToString(depth)), " bits are not supported").c_str());
            if (chans != 1 && chans != 2) return refuse("Only mono and stereo files are supported");
            if (rate == 0) return refuse("The file gives no sample rate");
            if (rate > maxSampleRate) return refuse(unsupportedRate(rate).c_str());
            channels = chans;
            bits = depth;
            frames = static_cast<int32_t>(std::min<uint32_t>(count, maxFrameIndex));
            sampleRate = static_cast<float>(rate);
            haveCommon = true;
        } else if (std::memcmp(chunk, "SSND", 4) == 0) {
            uint8_t header[8];
            if (size < 8 || !readExact(f, header, 8)) return refuse("The AIFF sound chunk is damaged");
            if (!haveCommon) frames = 0;
            const int64_t start = body + 8 + be32(header);
            const int32_t frameBytes = bits / 8 * channels;
            soundBytes = std::clamp<int64_t>(std::min(int64_t{size} - 8 - be32(header), length - start), 0, maxFrameIndex);
            const int64_t bytes = std::min<int64_t>(soundBytes, int64_t{frames} * frameBytes);
            if (streamed) {
                dataOffset = start;
            } else if (!seekTo(f, start)) {
                return false;
            } else {
                readData(f, bytes);
            }
            if (!streamed && bits != 32) {
                // 16 and 24 bits are held little-endian in memory.
                uint8_t* b = data.get();
                const int32_t width = bits / 8;
                for (int64_t i = 0; i + width <= dataBytes; i += width) std::swap(b[i], b[i + width - 1]);
                bigEndian = 0;
            }
            valid = 1;
        }
        position = nextChunk(f, end, size, length);
    }
    if (soundBytes >= 0) frames = static_cast<int32_t>(std::min<int64_t>(frames, soundBytes / (bits / 8 * channels)));
    return true;
}

void CSample::readData(std::FILE* f, int64_t bytes) {
    const int64_t held = std::clamp<int64_t>(bytes, 0, std::numeric_limits<int32_t>::max());
    data = std::make_unique_for_overwrite<uint8_t[]>(static_cast<size_t>(std::max<int64_t>(held, 1)));
    dataBytes = static_cast<int64_t>(std::fread(data.get(), 1, static_cast<size_t>(held), f));
}

void CSample::adopt(std::unique_ptr<uint8_t[]> bytes, int64_t byteCount) {
    data = std::move(bytes);
    dataBytes = byteCount;
    streamed = 0;
    bigEndian = 0;
    bytesPerFrame = bits / 8 * channels;
    invRate = sampleRate > 0.0f ? 1.0f / sampleRate : 0.0f;
    valid = 1;
    error = CString();
    buildPeaks();
}

std::vector<uint8_t> CSample::storedBytes() {
    const int64_t total = int64_t{frames} * bytesPerFrame;
    std::vector<uint8_t> bytes(static_cast<size_t>(std::max<int64_t>(total, 0)));
    if (!valid) return bytes;
    if (bits == 32 && bigEndian) {
        // Written elsewhere without a byte order, 32-bit integers would come back as floats: store floats.
        for (int64_t frame = 0; frame < frames; frame += 4096) {
            const auto n = static_cast<int32_t>(std::min<int64_t>(4096, frames - frame));
            for (int64_t i = 0; i < int64_t{n} * channels; ++i) {
                uint8_t raw[4];
                fetch(raw, (frame * channels + i) * 4, 4);
                const float x = static_cast<float>(static_cast<int32_t>(be32(raw)) * 4.656612873077393e-10);
                std::memcpy(&bytes[static_cast<size_t>((frame * channels + i) * 4)], &x, 4);
            }
        }
        return bytes;
    }
    for (int64_t at = 0; at < total; at += streamBufferBytes)
        fetch(&bytes[static_cast<size_t>(at)], at, static_cast<int32_t>(std::min<int64_t>(streamBufferBytes, total - at)));
    return bytes;
}

void CSample::fill(StreamBuffer& buffer, std::FILE* f, int64_t position) {
    int32_t got = 0;
    {
        platform::ScopedLock guard(lock);
        if (f && seekTo(f, dataOffset + position)) {
            const int32_t want = streamBufferBytes - streamBufferBytes % std::max(bytesPerFrame, 1);
            got = static_cast<int32_t>(std::fread(buffer.data.get(), 1, static_cast<size_t>(want), f));
        }
    }
    buffer.start = position;
    buffer.valid = got;
    buffer.state.store(bufferFilled, std::memory_order_release);
}

void CSample::fillWanted() {
    for (StreamBuffer& buffer : buffers) {
        int32_t expected = bufferWanted;
        if (!buffer.state.compare_exchange_strong(expected, bufferLoading, std::memory_order_acquire)) continue;
        fill(buffer, readFile ? readFile.get() : file.get(), buffer.next.load(std::memory_order_relaxed));
    }
}

StreamBuffer* CSample::bufferFor(int64_t position) {
    StreamBuffer& a = buffers[0];
    StreamBuffer& b = buffers[1];
    const auto holds = [position](StreamBuffer& buffer) {
        return buffer.state.load(std::memory_order_acquire) == bufferFilled && position >= buffer.start &&
               position < buffer.start + buffer.valid;
    };
    // The other buffer is asked for what follows when it is empty or already behind.
    const auto askNext = [](StreamBuffer& held, StreamBuffer& other) {
        const int32_t state = other.state.load(std::memory_order_acquire);
        const int64_t heldEnd = held.start + held.valid;
        if (state == bufferEmpty || (state == bufferFilled && other.start + other.valid <= held.start)) {
            other.next.store(heldEnd, std::memory_order_relaxed);
            other.state.store(bufferWanted, std::memory_order_release);
        }
    };
    if (holds(a)) {
        askNext(a, b);
        return &a;
    }
    if (holds(b)) {
        askNext(b, a);
        return &b;
    }
    for (int32_t i = 0; i < 2; ++i) {
        StreamBuffer& buffer = buffers[i];
        StreamBuffer& other = buffers[1 - i];
        int32_t state = buffer.state.load(std::memory_order_acquire);
        if (state == bufferLoading || !buffer.state.compare_exchange_strong(state, bufferLoading)) continue;
        fill(buffer, file.get(), position);
        if (other.state.load(std::memory_order_acquire) != bufferLoading) {
            other.next.store(buffer.start + buffer.valid, std::memory_order_relaxed);
            other.state.store(bufferWanted, std::memory_order_release);
        }
        return buffer.valid > 0 ? &buffer : nullptr;
    }
    return nullptr;
}

void CSample::fetch(uint8_t* out, int64_t position, int32_t length) {
    if (!streamed) {
        const int64_t have = std::clamp<int64_t>(dataBytes - position, 0, length);
        if (have > 0) std::memcpy(out, data.get() + position, static_cast<size_t>(have));
        std::memset(out + have, 0, static_cast<size_t>(length - have));
        return;
    }
    const int64_t total = int64_t{frames} * bytesPerFrame;
    while (length > 0) {
        StreamBuffer* buffer = position < total ? bufferFor(position) : nullptr;
        if (!buffer) {
            std::memset(out, 0, static_cast<size_t>(length));
            return;
        }
        const auto n = static_cast<int32_t>(std::min<int64_t>(buffer->start + buffer->valid - position, length));
        std::memcpy(out, buffer->data.get() + (position - buffer->start), static_cast<size_t>(n));
        out += n;
        position += n;
        length -= n;
    }
}

int32_t CSample::readFrames(float* dest, int32_t destFloats, int64_t firstFrame, int32_t count, float rate) {
    const int32_t chans = std::max(channels, 1);
    const int64_t wanted = static_cast<int64_t>(static_cast<double>(count) * rate) + 6;
    const auto total = static_cast<int32_t>(std::clamp<int64_t>(wanted, 0, destFloats / chans));
    int64_t frame = firstFrame - 1;
    int32_t done = 0;
    // Whole runs of frames inside the data are fetched at once, in pieces the size of a small stack buffer.
    uint8_t raw[1536];
    const int32_t perPiece = static_cast<int32_t>(sizeof raw) / std::max(bytesPerFrame, 1);
    const bool readable = bits == 16 || bits == 24 || bits == 32;
    while (done < total) {
        if (frame < 0 || frame >= frames || !readable) {
            // The whole run outside the data at once: a fast voice may walk far past either end.
            const int64_t outside = !readable || frame >= frames ? total - done : std::min<int64_t>(-frame, total - done);
            std::fill_n(dest + int64_t{done} * chans, outside * chans, 0.0f);
            done += static_cast<int32_t>(outside);
            frame += outside;
            continue;
        }
        const auto n = static_cast<int32_t>(std::min<int64_t>({perPiece, total - done, frames - frame}));
        fetch(raw, frame * bytesPerFrame, n * bytesPerFrame);
        float* out = dest + done * chans;
        const int32_t values = n * chans;
        const uint8_t* b = raw;
        switch (bits) {
        case 16:
            for (int32_t i = 0; i < values; ++i, b += 2)
                out[i] = static_cast<float>(static_cast<int16_t>(bigEndian ? be16(b) : le16(b))) * 3.0517578e-5f;
            break;
        case 24:
            for (int32_t i = 0; i < values; ++i, b += 3) {
                const uint32_t v = bigEndian ? (uint32_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8)
                                             : (uint32_t{b[2]} << 24) | (b[1] << 16) | (b[0] << 8);
                out[i] = static_cast<float>(static_cast<int32_t>(v) * 4.656612873077393e-10);
            }
            break;
        default:
            for (int32_t i = 0; i < values; ++i, b += 4) {
                if (bigEndian) {
                    out[i] = static_cast<float>(static_cast<int32_t>(be32(b)) * 4.656612873077393e-10);
                } else {
                    out[i] = clean(std::bit_cast<float>(le32(b)));
                }
            }
            break;
        }
        done += n;
        frame += n;
    }
    return total;
}

int32_t CSample::framesFitting(int32_t scratchFloats, int32_t chans, float rate) {
    const double room = static_cast<double>(scratchFloats / std::max(chans, 1) - 8);
    if (!(rate > 0.0f)) return std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp(room / rate, 0.0, double{std::numeric_limits<int32_t>::max()}));
}

void CSample::readInterpolated(int32_t channel, int32_t count, float* dstL, float* dstR, double position, float rate,
                               float* scratch, int32_t scratchFloats, uint8_t reverse, int32_t rangeStart,
                               int32_t rangeEnd) {
    if (!valid || channel >= 2 || count <= 0 || (bits != 16 && bits != 24 && bits != 32) ||
        (channels != 1 && channels != 2) || !(std::fabs(rate) < 1e9f))
        return;
    if (count > framesFitting(scratchFloats, channels, std::fabs(rate))) return;
    double base = position;
    if (reverse) base = static_cast<double>(rangeStart) + rangeEnd - position - count * static_cast<double>(rate);
    if (!(std::fabs(base) < 4e18)) return;
    const auto first = static_cast<int64_t>(std::trunc(base));
    readFrames(scratch, scratchFloats, first, count, rate);

    const int32_t chans = channels;
    for (int32_t i = 0; i < count; ++i) {
        const double x = base + static_cast<double>(static_cast<float>(i) * rate);
        const auto n = static_cast<int64_t>(std::trunc(x));
        const auto t = static_cast<float>(x - static_cast<double>(n));
        const float* y = scratch + (n - first) * chans;
        const int32_t out = reverse ? count - 1 - i : i;
        for (int32_t c = 0; c < chans; ++c) {
            const float v = cubicPoint(y[c], y[chans + c], y[2 * chans + c], y[3 * chans + c], t);
            if (c == 0) dstL[out] = v;
            if (c == 1 || chans == 1) dstR[out] = v;
        }
    }
}

void CSample::buildPeaks() {
    peaks.clear();
    if (!valid || (channels != 1 && channels != 2)) return;
    const int64_t groups = (int64_t{frames} + peakGroup - 1) / peakGroup;
    peaks.reserve(static_cast<size_t>(groups * 2 * channels));
    std::vector<float> row(static_cast<size_t>((peakGroup + 8) * channels));
    const auto toByte = [](float x) {
        return static_cast<uint8_t>(std::lround(std::clamp(x, -1.0f, 1.0f) * 127.0f) + 127);
    };
    // Frames a damaged file declares but doesn't hold are silence; they needn't be read one by one.
    const int64_t held = streamed ? frames : std::min<int64_t>(frames, dataBytes / std::max(bytesPerFrame, 1) + 1);
    for (int64_t g = 0; g < groups; ++g) {
        const int64_t first = g * peakGroup;
        if (first > held) {
            peaks.resize(peaks.size() + static_cast<size_t>(2 * channels), 127);
            continue;
        }
        const auto n = static_cast<int32_t>(std::min<int64_t>(peakGroup, frames - first));
        if (!streamed && bits == 16 && !bigEndian && data && (first + n) * bytesPerFrame <= dataBytes) {
            // 16-bit frames held in memory: the extremes of the integers are those of their floats.
            const uint8_t* bytes = data.get() + first * bytesPerFrame;
            for (int32_t c = 0; c < channels; ++c) {
                int32_t high = -32768, low = 32768;
                for (int32_t i = 0; i < n; ++i) {
                    const auto v = static_cast<int16_t>(le16(bytes + 2 * (i * channels + c)));
                    high = std::max<int32_t>(high, v);
                    low = std::min<int32_t>(low, v);
                }
                peaks.push_back(toByte(static_cast<float>(high) * 3.0517578e-5f));
                peaks.push_back(toByte(static_cast<float>(low) * 3.0517578e-5f));
            }
            continue;
        }
        // readFrames puts the frame before `first` in front.
        readFrames(row.data(), static_cast<int32_t>(row.size()), first, n, 1.0f);
        for (int32_t c = 0; c < channels; ++c) {
            float high = -1.0f, low = 1.0f;
            for (int32_t i = 1; i <= n; ++i) {
                high = std::max(high, row[static_cast<size_t>(i * channels + c)]);
                low = std::min(low, row[static_cast<size_t>(i * channels + c)]);
            }
            peaks.push_back(toByte(high));
            peaks.push_back(toByte(low));
        }
    }
}

CSampleClip::CSampleClip() = default;

bool CSampleClip::open(const CString& filePath) {
    const bool ok = CSample::open(filePath);
    clipFlag = 0;
    start = 0;
    end = std::max(frames - 1, 0);
    return ok;
}
