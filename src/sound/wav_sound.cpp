#include "sound/wav_sound.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <type_traits>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "core/block_in.h"
#include "core/stream.h"
#include "sound/sampler.h"
#include "sound/voice_dsp.h"

using namespace voicedsp;

namespace {

// The name a clip gives its sound: the file name after the last separator, extension included.
CString clipName(const CSampleClip& clip) {
    const char* text = clip.path.c_str();
    const char* name = text;
    for (const char* c = text; *c; ++c)
        if (*c == '/' || *c == '\\') name = c + 1;
    return name;
}

// A chunk's starting gains and filter coefficient and their steps per sample.
struct Ramps {
    float gainL, gainR, filterF;
    float dGainL, dGainR, dFilter;
    float damping;
};

// The state-variable filter of one channel: low, band and high.
struct Svf {
    float low, band, high;

    // low += f band; high = in - low - damping band; band += f high, with the band update expanded so
    // that each sample's band waits on the one before through a multiply and an add, not five steps.
    // `keep` is 1 - f² - f damping. Only a loop that taps high works it out at every sample; the others
    // need it from their last.
    template <bool WithHigh>
    void step(float in, float f, float keep, float damping) {
        const float nextBand = band * keep + f * (in - low);
        low += f * band;
        if constexpr (WithHigh) high = in - low - damping * band;
        band = nextBand;
    }
    static float keepOf(float f, float damping) { return 1.0f - f * f - f * damping; }

    // A constant tap keeps the three states in registers across the loop.
    template <int32_t Tap>
    float tap() const {
        if constexpr (Tap == filterBand) return band;
        else if constexpr (Tap == filterHigh) return high;
        else return low;
    }
};

using Lanes = float __attribute__((vector_size(16)));
using LaneBits = int32_t __attribute__((vector_size(16)));

Lanes loadLanes(const float* at) {
    Lanes x;
    std::memcpy(&x, at, sizeof x);
    return x;
}

void storeLanes(float* at, Lanes x) { std::memcpy(at, &x, sizeof x); }

Lanes magnitude(Lanes x) { return reinterpret_cast<Lanes>(reinterpret_cast<LaneBits>(x) & 0x7FFFFFFF); }

#if defined(__SSE2__)
// Asked once at start-up, so that the audio thread never meets a first-use guard.
const bool wideLanesPresent = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
}();
std::atomic<bool> wideLanesAllowed{true};

// Whether the interpolation may use 256-bit lanes: the processor has them, and no test holds them back.
bool wideLanes() { return wideLanesPresent && wideLanesAllowed.load(std::memory_order_relaxed); }

using WideLanes = float __attribute__((vector_size(32)));

// The upper 16 bits of each 32-bit lane as floats.
__attribute__((target("avx2"), always_inline)) inline WideLanes widen16(__m256i x) {
    return reinterpret_cast<WideLanes>(_mm256_cvtepi32_ps(_mm256_srai_epi32(x, 16)));
}

// The cubic of `cubicPoint`, operation for operation, built for the 256-bit lanes: a function built
// without them cannot take them.
__attribute__((target("avx2"), always_inline)) inline WideLanes cubicPointWide(WideLanes y0, WideLanes y1,
                                                                              WideLanes y2, WideLanes y3, WideLanes t) {
    const WideLanes a = 1.5f * (y1 - y2) - 0.5f * (y0 - y3);
    const WideLanes b = 2.0f * y2 + y0 - 0.5f * (5.0f * y1 + y3);
    const WideLanes c = 0.5f * (y2 - y0);
    return ((a * t + b) * t + c) * t + y1;
}
#endif

// The positions of the clip's interpolation, fixed point with 32 bits of fraction.
class CubicWalk {
public:
    static constexpr double unit = 4294967296.0;

    CubicWalk(double base, float rate) : phase(toFixed(base)), step(toFixed(rate)) {}

    // The whole frame of the next position, and in `t` how far past it the position lies.
    int64_t advance(float& t) {
        const int64_t n = phase >> 32;
        t = static_cast<float>(static_cast<uint32_t>(phase)) * (1.0f / 4294967296.0f);
        phase += step;
        return n;
    }

    int64_t first() const { return phase >> 32; }

private:
    // Positions and rates are never negative here; rounding half up is all the rounding they need.
    static int64_t toFixed(double x) { return static_cast<int64_t>(x * unit + 0.5); }

    int64_t phase;
    int64_t step;
};

// 16-bit little-endian frames read straight from a clip held in memory. Scaling by a power of two is
// exact, so interpolating the frames and scaling the result once gives what converting them first would.
struct PcmSource {
    PcmSource(const uint8_t* data, double base, float rate) : data(data), walk(base, rate) {}

    template <int32_t Channels>
    void next(float& l, float& r) {
        float t = 0.0f;
        const uint8_t* at = data + (walk.advance(t) - 1) * 2 * Channels;
        int16_t y[4 * Channels];
        std::memcpy(y, at, sizeof y);
        const auto channel = [&y, t](int32_t c) {
            return cubicPoint<float>(y[c], y[Channels + c], y[2 * Channels + c], y[3 * Channels + c], t) * scale;
        };
        l = channel(0);
        r = Channels == 1 ? l : channel(Channels - 1);
    }

    // Fills `out` with the next `frames` positions of a mono clip, eight or four at a time where it can:
    // the four frames around each of the positions are turned so that the cubic works on all of them at
    // once, with the arithmetic of `next` lane for lane.
    void fillMono(float* out, int32_t frames) {
        int32_t i = 0;
#if defined(__SSE2__)
        if (wideLanes()) i = fillMonoWide(out, frames);
        for (; i + 4 <= frames; i += 4) {
            float t[4];
            __m128i before, after;
            aroundFour(before, after, t);
            storeLanes(out + i, scaledCubic(before, after, Lanes{t[0], t[1], t[2], t[3]}));
        }
#endif
        for (float right = 0.0f; i < frames; ++i) next<1>(out[i], right);
    }

    // Fills `left` and `right` with the next `frames` positions of a stereo clip, four at a time where it
    // can: each lane pair works out one position's two channels, with the arithmetic of `next`.
    void fillStereo(float* left, float* right, int32_t frames) {
        int32_t i = 0;
#if defined(__SSE2__)
        for (; i + 4 <= frames; i += 4) {
            float t[4];
            __m128i around[4];
            for (int32_t k = 0; k < 4; ++k)
                around[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + (walk.advance(t[k]) - 1) * 4));
            const auto pair = [](__m128i a, __m128i b, float ta, float tb) {
                // Frames n - 1, then n, of both positions, and n + 1, then n + 2.
                return reinterpret_cast<__m128>(
                    scaledCubic(_mm_unpacklo_epi32(a, b), _mm_unpackhi_epi32(a, b), Lanes{ta, ta, tb, tb}));
            };
            const __m128 first = pair(around[0], around[1], t[0], t[1]);   // left, right, left, right
            const __m128 second = pair(around[2], around[3], t[2], t[3]);
            _mm_storeu_ps(left + i, _mm_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0)));
            _mm_storeu_ps(right + i, _mm_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1)));
        }
#endif
        for (; i < frames; ++i) next<2>(left[i], right[i]);
    }

    static constexpr float scale = 1.0f / 32768.0f;
    const uint8_t* data;
    CubicWalk walk;

private:
#if defined(__SSE2__)
    // The four frames around each of the next four positions of a mono clip, turned: `before` holds
    // frame n - 1 of each position, then frame n, and `after` frames n + 1 and n + 2. `t` takes how far
    // past frame n each position lies.
    void aroundFour(__m128i& before, __m128i& after, float* t) {
        __m128i around[4];
        for (int32_t k = 0; k < 4; ++k)
            around[k] = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(data + (walk.advance(t[k]) - 1) * 2));
        const __m128i pairs01 = _mm_unpacklo_epi16(around[0], around[1]);
        const __m128i pairs23 = _mm_unpacklo_epi16(around[2], around[3]);
        before = _mm_unpacklo_epi32(pairs01, pairs23);
        after = _mm_unpackhi_epi32(pairs01, pairs23);
    }

    // The cubic of four lanes, scaled, from 16-bit frames: `before` holds frame n - 1 of each lane, then
    // frame n, and `after` frames n + 1 and n + 2.
    static Lanes scaledCubic(__m128i before, __m128i after, Lanes t) {
        const auto widen = [](__m128i x) { return reinterpret_cast<Lanes>(_mm_cvtepi32_ps(_mm_srai_epi32(x, 16))); };
        return cubicPoint(widen(_mm_unpacklo_epi16(before, before)), widen(_mm_unpackhi_epi16(before, before)),
                          widen(_mm_unpacklo_epi16(after, after)), widen(_mm_unpackhi_epi16(after, after)), t) *
               scale;
    }

    // Eight positions at a time, for processors with 256-bit lanes; returns how many it filled. It does
    // without fused multiply-adds, so that its bits are those of the four-lane loop.
    __attribute__((target("avx2"))) int32_t fillMonoWide(float* out, int32_t frames) {
        int32_t i = 0;
        for (; i + 8 <= frames; i += 8) {
            float t[8];
            __m128i beforeFirst, afterFirst, beforeLast, afterLast;
            aroundFour(beforeFirst, afterFirst, t);
            aroundFour(beforeLast, afterLast, t + 4);
            // The frames of the first four positions, and beside them those of the last four.
            const __m256i before = _mm256_set_m128i(beforeLast, beforeFirst);
            const __m256i after = _mm256_set_m128i(afterLast, afterFirst);
            WideLanes at;
            std::memcpy(&at, t, sizeof at);
            const WideLanes y =
                cubicPointWide(widen16(_mm256_unpacklo_epi16(before, before)), widen16(_mm256_unpackhi_epi16(before, before)),
                               widen16(_mm256_unpacklo_epi16(after, after)), widen16(_mm256_unpackhi_epi16(after, after)), at);
            const WideLanes scaled = y * scale;
            std::memcpy(out + i, &scaled, sizeof scaled);
        }
        return i;
    }
#endif
};

// Frames the clip has converted to floats, channels interleaved, starting one frame before the first
// position.
struct FloatSource {
    FloatSource(const float* frames, double base, float rate)
        : frames(frames), walk(base, rate), start(walk.first() - 1) {}

    template <int32_t Channels>
    void next(float& l, float& r) {
        float t = 0.0f;
        const float* y = frames + (walk.advance(t) - 1 - start) * Channels;
        const auto channel = [y, t](int32_t c) {
            return cubicPoint(y[c], y[Channels + c], y[2 * Channels + c], y[3 * Channels + c], t);
        };
        l = channel(0);
        r = Channels == 1 ? l : channel(Channels - 1);
    }

    const float* frames;
    CubicWalk walk;
    int64_t start;
};

// The clip's bytes when every frame the chunk's interpolation touches lies inside a 16-bit little-endian
// clip held in memory; null sends the chunk the general way.
const uint8_t* directPcm16(const CSampleClip& clip, double position, double rate, int32_t chunk) {
    if (clip.streamed || clip.bits != 16 || clip.bigEndian || (clip.channels != 1 && clip.channels != 2) || !clip.data)
        return nullptr;
    // One frame before the first position, two behind the last, and a frame of slack for rounding. The
    // last whole frame read ends before `beyond`, so a data block that holds `beyond` frames holds it.
    const double beyond = position + static_cast<double>(chunk) * rate + 4.0;
    if (!(position >= 1.0) || !(beyond < static_cast<double>(clip.frames)) ||
        !(beyond * clip.bytesPerFrame < static_cast<double>(clip.dataBytes)))
        return nullptr;
    return clip.data.get();
}

// One chunk of one voice, planned: where its frames come from, its ramps and filter states, where it mixes
// to, and the peaks it reached.
struct ChunkJob {
    const uint8_t* pcm = nullptr;  // the clip's frames; null for a chunk the clip converts first
    double base = 0.0;
    float rate = 0.0f;
    int32_t channels = 1;
    int32_t tap = filterLow;
    int32_t frames = 0;
    float* outL = nullptr;
    float* outR = nullptr;
    float* tapL = nullptr;  // scratch for the filter outputs of the chunk
    float* tapR = nullptr;
    Ramps ramps{};
    Svf left{}, right{};
    float peakLeft = 0.0f, peakRight = 0.0f;
};

// The peaks raised to the magnitudes of y; a NaN leaves its peak as it was.
Lanes larger(Lanes peak, Lanes y) {
#if defined(__SSE2__)
    return reinterpret_cast<Lanes>(_mm_max_ps(reinterpret_cast<__m128>(magnitude(y)), reinterpret_cast<__m128>(peak)));
#else
    const Lanes size = magnitude(y);
    const LaneBits higher = peak < size;
    return reinterpret_cast<Lanes>((higher & reinterpret_cast<LaneBits>(size)) | (~higher & reinterpret_cast<LaneBits>(peak)));
#endif
}

// Adds the tapped filter outputs of frames [from, to) of a chunk times the ramped gains into the outputs
// and raises the peaks to what it added, four frames at a time. Both sides may read the same taps.
void addWithGains(const Ramps ramps, const float* tappedL, const float* tappedR, float* outL, float* outR,
                  int32_t from, int32_t to, float& peakL, float& peakR) {
    const auto first = static_cast<float>(from);
    Lanes fi = {first, first + 1.0f, first + 2.0f, first + 3.0f};
    Lanes peaksL = {peakL, peakL, peakL, peakL};
    Lanes peaksR = {peakR, peakR, peakR, peakR};
    int32_t i = from;
    for (; i + 4 <= to; i += 4) {
        const Lanes yL = loadLanes(tappedL + i) * (ramps.gainL + fi * ramps.dGainL);
        const Lanes yR = loadLanes(tappedR + i) * (ramps.gainR + fi * ramps.dGainR);
        peaksL = larger(peaksL, yL);
        peaksR = larger(peaksR, yR);
        storeLanes(outL + i, loadLanes(outL + i) + yL);
        storeLanes(outR + i, loadLanes(outR + i) + yR);
        fi += 4.0f;
    }
    for (; i < to; ++i) {
        const auto f = static_cast<float>(i);
        const float yL = tappedL[i] * (ramps.gainL + f * ramps.dGainL);
        const float yR = tappedR[i] * (ramps.gainR + f * ramps.dGainR);
        peakL = std::max(peakL, std::fabs(yL));
        peakR = std::max(peakR, std::fabs(yR));
        outL[i] += yL;
        outR[i] += yR;
    }
    for (int32_t k = 0; k < 4; ++k) {
        peakL = std::max(peakL, peaksL[k]);
        peakR = std::max(peakR, peaksR[k]);
    }
}

// The filter's coefficient at a frame of the chunk. Most chunks hold it still, and then the filter's
// loop works out nothing per frame but the filter.
template <bool Sweeping>
struct FilterRamp {
    FilterRamp(const Ramps& ramps) : ramps(ramps), f(ramps.filterF), keep(Svf::keepOf(f, ramps.damping)) {}

    void at(float fi) {
        if constexpr (Sweeping) {
            f = ramps.filterF + fi * ramps.dFilter;
            keep = Svf::keepOf(f, ramps.damping);
        }
    }

    const Ramps& ramps;
    float f, keep;
};

// Runs `frame` for frames [from, to) of a chunk of `frames`, working out the filters' high only where it
// is tapped and at the chunk's last frame, which leaves it in the voice.
template <int32_t Tap, class Frame>
void forEachFrame(int32_t from, int32_t to, int32_t frames, Frame&& frame) {
    auto fi = static_cast<float>(from);
    int32_t i = from;
    for (const int32_t plain = std::min(to, frames - 1); i < plain; ++i, fi += 1.0f)
        frame.template operator()<Tap == filterHigh>(i, fi);
    for (; i < to; ++i, fi += 1.0f) frame.template operator()<true>(i, fi);
}

// Frames [from, from + count) of a job whose input is already interpolated into `inL` and `inR`, behind
// one filter for a mono job and two for a stereo one: the filters' loop waits on the filters, and the
// gains, peaks and mixing fit in its shadow.
template <int32_t Channels, int32_t Tap, bool Sweeping>
void runSegment(ChunkJob& job, const float* inL, const float* inR, int32_t from, int32_t count) {
    const Ramps ramps = job.ramps;
    const float damping = ramps.damping;
    FilterRamp<Sweeping> filter(ramps);
    // Held apart from the job, whose fields the stores to the outputs might otherwise overwrite.
    const float gainL = ramps.gainL, dGainL = ramps.dGainL, gainR = ramps.gainR, dGainR = ramps.dGainR;
    float* outL = job.outL;
    float* outR = job.outR;
    Svf l = job.left, r = job.right;
    float peakLeft = job.peakLeft, peakRight = job.peakRight;
    forEachFrame<Tap>(from, from + count, job.frames, [&]<bool WithHigh>(int32_t i, float fi) {
        filter.at(fi);
        l.template step<WithHigh>(inL[i], filter.f, filter.keep, damping);
        const float tappedL = l.template tap<Tap>();
        float tappedR = tappedL;
        if constexpr (Channels == 2) {
            r.template step<WithHigh>(inR[i], filter.f, filter.keep, damping);
            tappedR = r.template tap<Tap>();
        }
        const float yL = tappedL * (gainL + fi * dGainL);
        const float yR = tappedR * (gainR + fi * dGainR);
        peakLeft = std::max(peakLeft, std::fabs(yL));
        peakRight = std::max(peakRight, std::fabs(yR));
        outL[i] += yL;
        outR[i] += yR;
    });
    job.left = l;
    job.right = Channels == 2 ? r : l;
    job.peakLeft = peakLeft;
    job.peakRight = peakRight;
}

// Whether a job can run beside other voices' in `filterChains`: a mono job whose two filters agree, or a
// stereo one, read from the clip's bytes through a low-pass that holds still.
bool groupable(const ChunkJob& job) {
    const Svf& l = job.left;
    const Svf& r = job.right;
    const bool sharedFilter = job.channels == 1 && l.low == r.low && l.band == r.band && l.high == r.high;
    return job.pcm && (job.channels == 2 || sharedFilter) && job.tap == filterLow && job.ramps.dFilter == 0.0f;
}

// One filter of a grouped job: its state, and the interpolated input it turns into its low in place.
struct FilterChain {
    Svf* state;
    float* io;
    float f, damping;
};

// `Chains` filters side by side for `count` frames. One filter's loop spends most of its time waiting on
// its own recursion; independent ones fill each other's waits. The last frame works out the filters'
// high as well, so that a job that ends there leaves its voice's state whole.
template <int32_t Chains>
void filterChains(const FilterChain* chains, int32_t count) {
    Svf filters[Chains];
    float* io[Chains];
    float f[Chains], keep[Chains];
    for (int32_t k = 0; k < Chains; ++k) {
        filters[k] = *chains[k].state;
        io[k] = chains[k].io;
        f[k] = chains[k].f;
        keep[k] = Svf::keepOf(f[k], chains[k].damping);
    }
    int32_t i = 0;
    for (; i + 1 < count; ++i) {
        for (int32_t k = 0; k < Chains; ++k) {
            filters[k].template step<false>(io[k][i], f[k], keep[k], 0.0f);
            io[k][i] = filters[k].low;
        }
    }
    for (int32_t k = 0; k < Chains; ++k) {
        filters[k].template step<true>(io[k][i], f[k], keep[k], chains[k].damping);
        io[k][i] = filters[k].low;
        *chains[k].state = filters[k];
    }
}

// The filters run sample by sample and leave their taps in the tap buffers; the gains, peaks and mixing
// follow four frames at a time. A clip in memory, mono behind one filter or stereo, has its input
// interpolated four frames at a time first, so that the filters' loop is left with nothing but the filters.
template <int32_t Channels, int32_t Tap, bool SharedFilter, bool Sweeping, class Source>
void runJob(ChunkJob& job, Source source) {
    if constexpr (SharedFilter && std::is_same_v<Source, PcmSource>) {
        source.fillMono(job.tapL, job.frames);
        runSegment<1, Tap, Sweeping>(job, job.tapL, job.tapL, 0, job.frames);
    } else if constexpr (Channels == 2 && std::is_same_v<Source, PcmSource>) {
        source.fillStereo(job.tapL, job.tapR, job.frames);
        runSegment<2, Tap, Sweeping>(job, job.tapL, job.tapR, 0, job.frames);
    } else {
        const Ramps& ramps = job.ramps;
        const float damping = ramps.damping;
        FilterRamp<Sweeping> filter(ramps);
        Svf l = job.left, r = job.right;
        forEachFrame<Tap>(0, job.frames, job.frames, [&]<bool WithHigh>(int32_t i, float fi) {
            float inL = 0.0f, inR = 0.0f;
            source.template next<Channels>(inL, inR);
            filter.at(fi);
            l.template step<WithHigh>(inL, filter.f, filter.keep, damping);
            job.tapL[i] = l.template tap<Tap>();
            if constexpr (!SharedFilter) {
                r.template step<WithHigh>(inR, filter.f, filter.keep, damping);
                job.tapR[i] = r.template tap<Tap>();
            }
        });
        job.left = l;
        job.right = SharedFilter ? l : r;
        addWithGains(ramps, job.tapL, SharedFilter ? job.tapL : job.tapR, job.outL, job.outR, 0, job.frames,
                     job.peakLeft, job.peakRight);
    }
}

template <int32_t Channels, int32_t Tap, bool Sweeping, class Source>
void runJobShared(ChunkJob& job, const Source& source) {
    // A mono clip feeds both filters the same samples; while their states agree one filter does for two.
    const Svf& l = job.left;
    const Svf& r = job.right;
    if (Channels == 1 && l.low == r.low && l.band == r.band && l.high == r.high)
        runJob<Channels, Tap, true, Sweeping>(job, source);
    else
        runJob<Channels, Tap, false, Sweeping>(job, source);
}

template <int32_t Channels, int32_t Tap, class Source>
void runJobTap(ChunkJob& job, const Source& source) {
    if (job.ramps.dFilter == 0.0f) runJobShared<Channels, Tap, false>(job, source);
    else runJobShared<Channels, Tap, true>(job, source);
}

template <int32_t Channels, class Source>
void runJobChannels(ChunkJob& job, const Source& source) {
    switch (job.tap) {
    case filterBand: runJobTap<Channels, filterBand>(job, source); break;
    case filterHigh: runJobTap<Channels, filterHigh>(job, source); break;
    default: runJobTap<Channels, filterLow>(job, source); break;
    }
}

// Renders one job on its own.
template <class Source>
void renderJob(ChunkJob& job, const Source& source) {
    if (job.channels == 2) runJobChannels<2>(job, source);
    else runJobChannels<1>(job, source);
}

}  // namespace

CWavSound::CWavSound() : CSound(soundSampled) { name = "sample"; }

void CWavSound::allowWideLanes([[maybe_unused]] bool allowed) {
#if defined(__SSE2__)
    wideLanesAllowed.store(allowed, std::memory_order_relaxed);
#endif
}

bool CWavSound::canPlay() const { return sample[0] && sample[0]->valid; }

void CWavSound::setSample(CSampleClip* clip) {
    sample[0] = clip;
    zones = std::max(zones, 1);
    if (clip) name = clipName(*clip);
}

void CWavSound::startVoice(SamplerVoice& voice) {
    const CSampleClip* clip = sample[0];
    voice.sampleStart = clip ? clip->start : 0;
    voice.sampleEnd = clip ? clip->end : 0;
    voice.position = voice.sampleStart;
    voice.rate = 1.0;
    voice.rateRatio = clip && voice.sampleRate > 0.0f ? clip->sampleRate / voice.sampleRate : 1.0f;
    voice.pitchOffset = std::numeric_limits<double>::quiet_NaN();
}

// One voice's way through a run of frames, a chunk at a time. A chunk the clip's bytes can be
// interpolated from directly comes out as a job for the caller to render; any other chunk is rendered on
// the spot from frames the clip converts first.
class CWavSound::Walk {
public:
    // False when the voice has nothing to render: it is closing, or its clip is gone.
    bool begin(CWavSound& owner, SamplerVoice& walked, float* left, float* right, int32_t count) {
        voice = &walked;
        sound = &owner;
        outL = left;
        outR = right;
        frames = count;
        offset = 0;
        peakLeft = peakRight = 0.0f;
        if (voice->closing > 0) {
            voice->closing -= frames;
            if (voice->closing <= 0) voice->state = voiceFree;
            return false;
        }
        clip = sound->sample[0];
        if (!clip || !clip->valid) {
            voice->state = voiceFree;
            return false;
        }
        CSound::noteReaching(*voice);
        slew = 1.0f / (voice->sampleRate * 6.2831855f * 0.001f);
        maxChunk = std::clamp(static_cast<int32_t>(std::floor(voice->sampleRate * 0.001 + 0.5)), 1, maxChunkFrames);
        // The fastest rate whose frames of one chunk still fit the conversion scratch.
        maxRate = std::max(1.0, static_cast<double>(CSample::framesFitting(CSampler::scratchFrames, clip->channels, 1.0f)) /
                                    maxChunk);
        return true;
    }

    // The next chunk to render into `job`; false once the frames are done or the voice has ended.
    bool next(ChunkJob& job) {
        while (offset < frames && voice->state == voiceSounding) {
            if (plan(job)) {
                if (job.pcm) return true;
                renderConverted(job);
            }
            finish(job);
        }
        return false;
    }

    // Takes back the voice's state from a rendered job and steps past the chunk.
    void finish(const ChunkJob& job) {
        if (job.frames > 0) {
            storeFilter(*voice, {job.left.low, job.left.band, job.left.high}, {job.right.low, job.right.band, job.right.high});
            const auto n = static_cast<float>(job.frames);
            voice->gainL += n * job.ramps.dGainL;
            voice->gainR += n * job.ramps.dGainR;
            voice->filterF += n * job.ramps.dFilter;
            voice->firstChunk = 0;
            voice->position += job.frames * voice->rate;
            peakLeft = std::max(peakLeft, job.peakLeft);
            peakRight = std::max(peakRight, job.peakRight);
        }
        offset += job.frames;
        sound->endChunk(*voice, job.frames);
        if (!last) return;
        if (clip->loop == loopForward && clip->loopStart < voice->sampleEnd) voice->position = clip->loopStart;
        else voice->state = voiceFree;
    }

    void end() {
        if (voice->state == voiceSounding) flushStates(*voice);
        const auto keep = [](Meter& peak, Meter& hold, float walked) {
            const float p = std::min(std::max(peak.load(std::memory_order_relaxed), walked), 1.0f);
            hold.store(std::max(hold.load(std::memory_order_relaxed), p), std::memory_order_relaxed);
            peak.store(p, std::memory_order_relaxed);
        };
        keep(sound->peakL, sound->holdL, peakLeft);
        keep(sound->peakR, sound->holdR, peakRight);
    }

private:
    // Modulation, rate and ramps of the next chunk. False for a chunk of no frames.
    bool plan(ChunkJob& job) {
        float* targets = sound->targets;
        std::fill_n(targets, targetCount, 0.0f);
        targets[targetPitch] = sound->bendSemitones();
        targets[targetVolume] = voice->volumeScale * sound->volume;
        targets[targetPan] = sound->pan + voice->panOffset;
        targets[targetCutoff] = voice->cutoffScale * sound->cutoff;
        targets[targetQ] = sound->q;

        int32_t chunk = sound->cutChunk(*voice, std::min(frames - offset, maxChunk), WrapRounding::truncate);
        // Cut at the clip's end with the rate of the chunk before.
        last = false;
        if (std::trunc(chunk * voice->rate + voice->position) > voice->sampleEnd) {
            const double left = std::trunc((voice->sampleEnd - voice->position) / voice->rate);
            chunk = static_cast<int32_t>(std::clamp(left, 0.0, static_cast<double>(chunk)));
            last = true;
            // A loop shorter than one output frame at this rate still moves on a frame at a time.
            if (chunk == 0 && clip->loop == loopForward && clip->loopStart < voice->sampleEnd) chunk = 1;
        }
        job.frames = chunk;
        if (chunk == 0) return false;

        sound->modulate(*voice, chunk);
        const int32_t diff = voice->note < 0 ? 0 : voice->note - clip->rootKey;
        const double x =
            (voice->pitch - static_cast<float>(voice->note)) + diff + targets[targetPitch] + sound->coarse + sound->fine;
        // The pitch mostly holds from one chunk to the next; the exponential is worked out when it moves.
        if (x != voice->pitchOffset) {
            voice->pitchOffset = x;
            voice->pitchRate = std::exp(x * (1.0 / 12.0) * std::numbers::ln2) * voice->rateRatio;
        }
        const double rate = voice->pitchRate;
        voice->rate = std::isfinite(rate) ? std::clamp(rate, 1e-6, maxRate) : 1.0;

        float gL = 0.0f, gR = 0.0f;
        panGains(targets[targetVolume], targets[targetPan], gL, gR);
        const float cutoff2 = targets[targetCutoff] * targets[targetCutoff];
        if (voice->firstChunk) {
            voice->gainL = gL;
            voice->gainR = gR;
            voice->filterF = cutoff2;
        }
        job.ramps = {voice->gainL,
                     voice->gainR,
                     voice->filterF,
                     rampStep(gL, voice->gainL, chunk, slew),
                     rampStep(gR, voice->gainR, chunk, slew),
                     rampStep(cutoff2, voice->filterF, chunk, slew),
                     1.0f - std::min(targets[targetQ], 0.97f)};
        job.left = {voice->lowL, voice->bandL, voice->highL};
        job.right = {voice->lowR, voice->bandR, voice->highR};
        // Both sides always tap the same state.
        job.tap = tapIndex(voice->tapL, &voice->bandL, &voice->highL);
        job.outL = outL + offset;
        job.outR = outR + offset;
        job.tapL = voice->readL;
        job.tapR = voice->readR;
        job.peakLeft = job.peakRight = 0.0f;
        job.pcm = directPcm16(*clip, voice->position, voice->rate, chunk);
        job.base = voice->position;
        job.rate = static_cast<float>(voice->rate);
        job.channels = clip->channels;
        return true;
    }

    // Any other clip, or a chunk near the clip's ends, has the clip convert its frames first; frames
    // outside the data read as zeros.
    void renderConverted(ChunkJob& job) {
        const bool fits = (clip->channels == 1 || clip->channels == 2) &&
                          job.frames <= CSample::framesFitting(CSampler::scratchFrames, clip->channels, job.rate);
        const CubicWalk walk(voice->position, job.rate);
        if (fits)
            clip->readFrames(voice->interpScratch, CSampler::scratchFrames, walk.first(), job.frames, job.rate);
        else
            std::fill_n(voice->interpScratch, 8, 0.0f);
        renderJob(job, FloatSource{voice->interpScratch, voice->position, fits ? job.rate : 0.0f});
    }

    SamplerVoice* voice = nullptr;
    CWavSound* sound = nullptr;
    CSampleClip* clip = nullptr;
    float* outL = nullptr;
    float* outR = nullptr;
    int32_t frames = 0, offset = 0, maxChunk = 1;
    float slew = 0.0f, peakLeft = 0.0f, peakRight = 0.0f;
    double maxRate = 1.0;
    bool last = false;
};

void CWavSound::process(float* outL, float* outR, SamplerVoice& voice, int32_t frames) {
    Walk walk;
    if (!walk.begin(*this, voice, outL, outR, frames)) return;
    ChunkJob job;
    while (walk.next(job)) {
        renderJob(job, PcmSource{job.pcm, job.base, job.rate});
        walk.finish(job);
    }
    walk.end();
}

namespace {

// One voice of a group: its walk, its current groupable job, the job's interpolated input and how far
// into the job it has got.
struct GroupLane {
    // The next job that can run beside the other voices'; jobs that cannot are rendered on the way.
    bool advance() {
        while (walk.next(job)) {
            if (groupable(job)) {
                if (job.channels == 2) fillStereoInput();
                else PcmSource{job.pcm, job.base, job.rate}.fillMono(inputL, job.frames);
                done = 0;
                return true;
            }
            renderJob(job, PcmSource{job.pcm, job.base, job.rate});
            walk.finish(job);
        }
        return false;
    }

    // Kept out of line: stereo jobs are rare in a General MIDI render, whose voices come through here.
    [[gnu::noinline]] void fillStereoInput() { PcmSource{job.pcm, job.base, job.rate}.fillStereo(inputL, inputR, job.frames); }

    // Renders `count` frames of a mono job alone, and steps past them: a stereo lane never runs alone,
    // since its two filters keep each other company.
    void runAlone(int32_t count) {
        runSegment<1, filterLow, false>(job, inputL, inputL, done, count);
        stepPast(count);
    }

    // Moves on by `count` rendered frames, to the next job once this one is done.
    void stepPast(int32_t count) {
        done += count;
        if (done < job.frames) return;
        walk.finish(job);
        live = advance();
    }

    int32_t left() const { return job.frames - done; }
    int32_t chains() const { return job.channels == 2 ? 2 : 1; }
    const float* filteredRight() const { return job.channels == 2 ? inputR : inputL; }

    CWavSound::Walk walk;
    ChunkJob job;
    int32_t done = 0;
    bool begun = false, live = false;
    float inputL[CWavSound::maxChunkFrames];
    float inputR[CWavSound::maxChunkFrames];
};

// The filters of the live lanes for `count` frames, four at a time: more would leave their states no
// room in the registers.
void filterLanes(GroupLane* const* lanes, int32_t laneCount, int32_t count) {
    FilterChain chains[2 * CWavSound::maxGroup];
    int32_t chainCount = 0;
    for (int32_t k = 0; k < laneCount; ++k) {
        GroupLane& lane = *lanes[k];
        ChunkJob& job = lane.job;
        const float f = job.ramps.filterF, damping = job.ramps.damping;
        chains[chainCount++] = {&job.left, lane.inputL + lane.done, f, damping};
        if (job.channels == 2) chains[chainCount++] = {&job.right, lane.inputR + lane.done, f, damping};
    }
    for (int32_t first = 0; first < chainCount; first += 4) {
        const FilterChain* batch = chains + first;
        switch (std::min(chainCount - first, 4)) {
        case 1: filterChains<1>(batch, count); break;
        case 2: filterChains<2>(batch, count); break;
        case 3: filterChains<3>(batch, count); break;
        default: filterChains<4>(batch, count); break;
        }
    }
    for (int32_t k = 0; k < laneCount; ++k)
        if (lanes[k]->job.channels != 2) lanes[k]->job.right = lanes[k]->job.left;
}

}  // namespace

void CWavSound::processGroup(float* outL, float* outR, SamplerVoice* const* voices, int32_t count, int32_t frames) {
    GroupLane lanes[maxGroup];
    GroupLane* live[maxGroup];
    int32_t liveCount = 0;
    count = std::clamp(count, 0, maxGroup);
    for (int32_t k = 0; k < count; ++k) {
        GroupLane& lane = lanes[k];
        lane.begun = lane.walk.begin(static_cast<CWavSound&>(*voices[k]->sound), *voices[k], outL, outR, frames);
        lane.live = lane.begun && lane.advance();
        if (lane.live) live[liveCount++] = &lane;
    }
    const auto liveChains = [&] {
        liveCount = static_cast<int32_t>(std::remove_if(live, live + liveCount, [](const GroupLane* l) { return !l->live; }) - live);
        int32_t chains = 0;
        for (int32_t k = 0; k < liveCount; ++k) chains += live[k]->chains();
        return chains;
    };
    // A lone mono voice renders faster on its own, its gains worked out in its filter's shadow.
    while (liveChains() >= 2) {
        int32_t shared = live[0]->left();
        for (int32_t k = 1; k < liveCount; ++k) shared = std::min(shared, live[k]->left());
        filterLanes(live, liveCount, shared);
        for (int32_t k = 0; k < liveCount; ++k) {
            GroupLane& lane = *live[k];
            ChunkJob& job = lane.job;
            addWithGains(job.ramps, lane.inputL, lane.filteredRight(), job.outL, job.outR, lane.done, lane.done + shared,
                         job.peakLeft, job.peakRight);
            lane.stepPast(shared);
        }
    }
    for (GroupLane& lane : lanes) {
        while (lane.live) lane.runAlone(lane.left());
        if (lane.begun) lane.walk.end();
    }
}

void CWavSound::saveKind(CStream& stream) const {
    stream.writeU8(0);
    stream.writeU8(static_cast<uint8_t>(zones));
    for (int32_t z = 0; z < zones; ++z) {
        const CSampleClip* clip = sample[z];
        stream.writeI32(clip && pool ? pool->indexOf(clip) : -1);
        stream.writeU8(clip ? clip->rootKey : 60);
        stream.writeU8(0);
        stream.writeU8(127);
        stream.writeU8(clip ? static_cast<uint8_t>(clip->loop) : 0);
        stream.writeI32(clip ? clip->loopStart : 0);
        stream.writeI32(0);
    }
}

void CWavSound::loadKind(BlockIn& in) {
    uint8_t count = 0;
    if (!in.skip(1) || !in.u8(count)) return;
    for (int32_t z = 0; z < count; ++z) {
        int32_t index = -1, loopStart = 0;
        uint8_t root = 60, loop = 0;
        if (!in.i32(index) || !in.u8(root) || !in.skip(2) || !in.u8(loop) || !in.i32(loopStart) || !in.skip(4)) return;
        if (z >= maxZones) continue;
        CSampleClip* clip = pool && index >= 0 ? pool->getAt(index) : nullptr;
        if (clip) {
            clip->rootKey = root;
            clip->loop = loop == loopForward ? loopForward : loopOff;
            clip->loopStart = loopStart;
            if (z == 0) name = clipName(*clip);
        }
        sample[z] = clip;
        zones = z + 1;
    }
}
