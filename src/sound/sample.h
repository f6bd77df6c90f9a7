#pragma once
// CSample: audio data that sounds and audio parts play, held whole in memory or streamed from its file.
// CSampleClip is the sampler's form of it, with the played range and the root key.
//
// Opening walks the chunks of a WAV or AIFF file with plain buffered reads and trusts none of them: a
// data size that runs past the end of the file gives the frames the file really holds, so nothing is
// sized from a header's claim. A file of a kind nothing here can play leaves the sample not `valid`, and `error` says
// why in words a user understands.
//
// Streaming: two 64 KiB buffers hold bytes of the data. The reading thread takes a buffer that holds the
// position and asks for the other to be filled with what follows; `fillWanted` (the disk side) fills
// it. A position neither holds is read at once on the reading thread, under `lock`: until a disk thread
// runs, that synchronous read is what keeps a streamed sample playing.
//
// In-memory samples are read without any lock; nothing in readFrames or readInterpolated allocates.

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "core/object.h"
#include "core/string.h"
#include "platform/platform.h"

enum SampleLoop : int32_t { loopOff = 0, loopForward = 1 };

// The 4-point cubic between y1 and y2, `t` of the way from y1, with y0 and y3 the frames on either side.
// T is a float, or a vector of floats that works on several positions at once.
template <class T>
T cubicPoint(T y0, T y1, T y2, T y3, T t) {
    const T a = 1.5f * (y1 - y2) - 0.5f * (y0 - y3);
    const T b = 2.0f * y2 + y0 - 0.5f * (5.0f * y1 + y3);
    const T c = 0.5f * (y2 - y0);
    return ((a * t + b) * t + c) * t + y1;
}

enum StreamBufferState : int32_t { bufferEmpty = 0, bufferWanted = 1, bufferLoading = 3, bufferFilled = 4 };

struct StreamBuffer {
    std::atomic<int32_t> state{bufferEmpty};
    int64_t start = 0;  // byte position in the data
    int32_t valid = 0;  // bytes held
    std::atomic<int64_t> next{0};  // position wanted
    std::unique_ptr<uint8_t[]> data;
};

class CSample : public CObject {
public:
    static constexpr int32_t streamBufferBytes = 65536;
    static constexpr int32_t peakGroup = 128;

    CSample();
    ~CSample() override;
    CSample(const CSample&) = delete;
    CSample& operator=(const CSample&) = delete;

    // Reads the header and, unless `streamed`, the frames. Gives `valid`.
    virtual bool open(const CString& filePath);

    // Converts the frames from firstFrame - 1 on into `dest` as floats, channels interleaved: the
    // frame before firstFrame, trunc(count x rate) + 2 frames and the neighbours the 4-point
    // interpolation needs. Frames outside the data are zeros. `destFloats` bounds what is written.
    // Returns the frames written.
    int32_t readFrames(float* dest, int32_t destFloats, int64_t firstFrame, int32_t count, float rate);

    // Renders `count` output frames from `position` (in frames) at `rate` frames per output frame with
    // the 4-point cubic. Mono fills both outputs alike. With `reverse` the mirror of the range
    // rangeStart..rangeEnd is read. Writes nothing unless valid, of 16, 24 or 32 bits and 1 or 2 channels.
    void readInterpolated(int32_t channel, int32_t count, float* dstL, float* dstR, double position, float rate,
                          float* scratch, int32_t scratchFloats, uint8_t reverse, int32_t rangeStart,
                          int32_t rangeEnd);
    // The most frames of output readInterpolated renders in one call at `rate` with that scratch.
    static int32_t framesFitting(int32_t scratchFloats, int32_t channels, float rate);

    // The disk side: fills the buffers that reading asked for. Any thread but the reading one.
    void fillWanted();

    // The data bytes as stored, zeros where the file holds none; for saving the sample elsewhere.
    std::vector<uint8_t> storedBytes();
    // Takes over frames already in memory (a clip loaded from a project), builds the peaks.
    void adopt(std::unique_ptr<uint8_t[]> bytes, int64_t byteCount);

    // For each group of 128 frames: highest and lowest of the left channel as round(x x 127) + 127,
    // then of the right one in a stereo sample.
    void buildPeaks();

    float sampleRate = 44100.0f;
    int32_t frames = 0;
    int32_t bits = 16;
    int32_t channels = 1;
    platform::CriticalSection lock;  // guards the file handles
    uint8_t bigEndian = 0;
    int32_t streamed = 0;
    CString path;
    std::unique_ptr<uint8_t[]> data;
    int64_t dataBytes = 0;  // bytes of `data` held; frames beyond them read as zeros
    int64_t dataOffset = 0;
    uint8_t valid = 0;
    float invRate = 1.0f / 44100.0f;
    int32_t bytesPerFrame = 2;
    int32_t loop = loopOff;
    int32_t loopStart = 0;
    int32_t loopCount = 0;  // loops the file's sampler chunk lists
    CString format;  // "WAV" or "AIFF" once the form is known
    CString error;  // why the sample is not valid; empty when it is
    StreamBuffer buffers[2];
    std::vector<uint8_t> peaks;
    int32_t useCount = 0;

protected:
    void close();

private:
    struct Closer {
        void operator()(std::FILE* f) const { std::fclose(f); }
    };
    using File = std::unique_ptr<std::FILE, Closer>;

    bool walkWav(std::FILE* f, int64_t length);
    bool walkAiff(std::FILE* f, int64_t length);
    // Reads up to `bytes` of data from where the file stands; a short file leaves fewer in dataBytes.
    void readData(std::FILE* f, int64_t bytes);
    bool refuse(const char* why);
    // Copies `length` bytes of the data from byte `position` on; zeros past what there is.
    void fetch(uint8_t* out, int64_t position, int32_t length);
    // The stream buffer holding `position`, filled at once when neither does; null when both are loading.
    StreamBuffer* bufferFor(int64_t position);
    void fill(StreamBuffer& buffer, std::FILE* f, int64_t position);

    File file, readFile;
};

class CSampleClip : public CSample {
public:
    CSampleClip();

    // Also sets start = 0, end = max(frames - 1, 0).
    bool open(const CString& filePath) override;

    int32_t clipFlag = 0;
    int32_t start = 0;  // "Sample start"
    int32_t end = 0;  // "Sample end"
    uint8_t rootKey = 60;  // "Org.key"
};
