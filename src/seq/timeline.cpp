#include "seq/timeline.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "seq/part.h"
#include "seq/song.h"

namespace {

constexpr float lowestTempo = 10.0f;
constexpr float highestTempo = 250.0f;

// A tempo from a file is not checked; one that can't be divided by reads as the lowest tempo, which
// is also what playback limits it to.
float usableTempo(float tempo) {
    return tempo > 0.0f ? tempo : lowestTempo;
}

// bpm * 16 is formed in single precision and only then widened; every conversion forms it the same
// way, so that they agree to the last bit.
double ticksPerSecond(float tempo) {
    return static_cast<double>(tempo * 16.0f);
}

int32_t usableNumerator(int32_t numerator) {
    return numerator >= 1 ? numerator : 4;
}

int64_t barTicks(int32_t numerator, int32_t denominator) {
    return static_cast<int64_t>(beatTicks(denominator)) * usableNumerator(numerator);
}

int64_t floorDiv(int64_t value, int64_t divisor) {
    const int64_t quotient = value / divisor;
    return quotient * divisor > value ? quotient - 1 : quotient;
}

int64_t ceilDiv(int64_t value, int64_t divisor) {
    return -floorDiv(-value, divisor);
}

int32_t saturate(int64_t value) {
    return static_cast<int32_t>(
        std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

} // namespace

double ticksToSamples(const CSeqProg* prog, float tempo, int32_t startTick, int32_t tickCount,
                      int32_t sampleRate) {
    const double rate = sampleRate;
    float current = usableTempo(tempo);
    if (!prog) return rate * tickCount / ticksPerSecond(current);
    double frames = 0.0;
    int64_t from = startTick;
    int64_t left = tickCount;
    for (const CTempoPart* point : prog->tempos) {
        const int64_t span = point->start - from;
        if (span > 0) {
            const int64_t take = std::min(left, span);
            frames += static_cast<double>(take) * rate / ticksPerSecond(current);
            from = point->start;
            left -= take;
        }
        if (left == 0) return frames;
        current = usableTempo(point->tempo);
    }
    if (left < 1) return frames;
    return frames + static_cast<double>(left) * rate / ticksPerSecond(current);
}

// The truncations are the result: a part's length derived from its audio must come out the same on
// every load. The shifted sample counts are 64-bit, where 32 bits overflow in a long span, and the
// products are taken in double precision.
double samplesToTicks(const CSeqProg* prog, float tempo, double startTick, double samples,
                      int32_t sampleRate) {
    const double rate = sampleRate;
    float current = usableTempo(tempo);
    if (!prog) return current * (samples * 16.0) / rate;
    int64_t ticks = 0;
    double from = startTick;
    double left = samples;
    for (const CTempoPart* point : prog->tempos) {
        if (point->start >= from) {
            auto spanSamples =
                static_cast<int64_t>(std::trunc(point->start - from) * rate / ticksPerSecond(current));
            if (static_cast<double>(spanSamples) > left) spanSamples = static_cast<int64_t>(left);
            if (spanSamples > 0) {
                from = point->start;
                ticks = static_cast<int64_t>(static_cast<double>(spanSamples << 4) * current / rate +
                                             static_cast<double>(ticks));
                left -= static_cast<double>(spanSamples);
            }
        }
        if (left == 0.0) break;
        current = usableTempo(point->tempo);
    }
    if (left >= 1.0) {
        const auto whole = static_cast<int64_t>(left);
        return std::trunc(static_cast<double>(whole << 4) * current / rate + static_cast<double>(ticks));
    }
    return static_cast<double>(ticks);
}

double tickToFrame(const CSeqProg* prog, float tempo, double tick, int32_t sampleRate) {
    const double rate = sampleRate;
    const double target = std::max(tick, 0.0);
    float current = usableTempo(tempo);
    double frames = 0.0;
    double at = 0.0;
    if (prog) {
        for (const CTempoPart* point : prog->tempos) {
            if (point->start >= target) break;
            if (point->start > at) {
                frames += (point->start - at) * rate / ticksPerSecond(current);
                at = point->start;
            }
            current = usableTempo(point->tempo);
        }
    }
    return frames + (target - at) * rate / ticksPerSecond(current);
}

double frameToTick(const CSeqProg* prog, float tempo, double frame, int32_t sampleRate) {
    const double rate = sampleRate;
    double left = std::max(frame, 0.0);
    float current = usableTempo(tempo);
    double at = 0.0;
    if (prog) {
        for (const CTempoPart* point : prog->tempos) {
            if (point->start > at) {
                const double span = (point->start - at) * rate / ticksPerSecond(current);
                if (span >= left) break;
                left -= span;
                at = point->start;
            }
            current = usableTempo(point->tempo);
        }
    }
    return at + left * ticksPerSecond(current) / rate;
}

int32_t snapToBeat(const CSeqProg* prog, int32_t tick, [[maybe_unused]] int32_t defaultNumerator,
                   int32_t defaultDenominator) {
    int64_t base = 0;
    int32_t denominator = defaultDenominator;
    if (prog) {
        // The last point in list order at or before the tick.
        for (const CTimesigPart* signature : prog->signatures) {
            if (signature->start > tick) continue;
            base = signature->start;
            denominator = signature->denominator;
        }
    }
    // Half a beat added away from zero, then C's truncating remainder: the nearest beat, ties away
    // from the signature's start. A beat is at least 4 ticks, so there is always a half to add.
    const int64_t beat = beatTicks(denominator);
    int64_t offset = tick - base;
    offset += offset < 0 ? -beat / 2 : beat / 2;
    return saturate(base + offset - offset % beat);
}

int32_t beatTicks(int32_t denominator) {
    if (denominator < 1 || denominator > 960) denominator = 4;
    return (960 / denominator) * 4;
}

float followTempo(const CSeqProg& prog, double position, float tempo, float nextTempo, double sampleRate,
                  int32_t blockFrames) {
    const auto at = static_cast<int64_t>(position);
    const double tickRate = ticksPerSecond(usableTempo(tempo));
    float wanted = nextTempo;
    for (const CTempoPart* point : prog.tempos) {
        if (point->start >= at) {
            const auto samplesUntil =
                static_cast<int64_t>(static_cast<double>(point->start - at) * sampleRate / tickRate);
            if (samplesUntil >= blockFrames) break;
        }
        wanted = point->tempo;
    }
    if (wanted == nextTempo) return nextTempo;
    // Written so that a tempo that is not a number lands on the lowest tempo.
    if (wanted > highestTempo) return highestTempo;
    return wanted >= lowestTempo ? wanted : lowestTempo;
}

int32_t insertIndexFor(const CList& points, int32_t tick) {
    int32_t index = 0;
    for (const CList::Cell* cell = points.head(); cell && cell->item; cell = cell->next, ++index)
        if (static_cast<const CPart*>(cell->item)->start >= tick) break;
    return index;
}

BarPosition barAt(const CSeqProg* prog, int32_t tick, int32_t defaultNumerator, int32_t defaultDenominator) {
    int64_t segmentStart = 0;
    int64_t barsBefore = 0;
    int32_t numerator = defaultNumerator;
    int32_t denominator = defaultDenominator;
    if (prog) {
        for (const CTimesigPart* signature : prog->signatures) {
            if (signature->start > tick) break;
            // The segment that ends here keeps its last, possibly shortened bar.
            const int64_t length = signature->start - segmentStart;
            if (length > 0) {
                barsBefore += ceilDiv(length, barTicks(numerator, denominator));
                segmentStart = signature->start;
            }
            numerator = signature->numerator;
            denominator = signature->denominator;
        }
    }
    const int64_t beat = beatTicks(denominator);
    const int64_t bar = barTicks(numerator, denominator);
    const int64_t offset = tick - segmentStart;
    const int64_t barIndex = floorDiv(offset, bar);
    const int64_t inBar = offset - barIndex * bar;
    return {saturate(barsBefore + barIndex + 1), static_cast<int32_t>(inBar / beat + 1),
            static_cast<int32_t>(inBar % beat)};
}

// "%d" never groups digits, so the text is the same in every locale.
CString formatBars(double position, int32_t numerator, int32_t denominator) {
    const auto p = static_cast<long long>(std::floor(position + 0.5));
    const long long beatIndex = p / beatTicks(denominator);
    const long long perBar = usableNumerator(numerator);
    char text[64];
    std::snprintf(text, sizeof text, "%.3lld.%.2lld.%.3lld", beatIndex / perBar + 1, beatIndex % perBar + 1,
                  p - (p / 960) * 960);
    return CString(text);
}

CString formatTime(int32_t samplePosition, int32_t sampleRate) {
    const double seconds = sampleRate > 0 ? static_cast<double>(samplePosition) / sampleRate : 0.0;
    const auto whole = static_cast<long long>(seconds);
    const auto millis = static_cast<long long>(seconds * 1000.0);
    char text[64];
    std::snprintf(text, sizeof text, "%.3lld:%.2lld:%.3lld", whole / 60, whole % 60, millis % 1000);
    return CString(text);
}

int32_t CSnap::gridTicks() {
    if (barSource) barSource->refreshBar(barNumerator, barDenominator);
    static constexpr int32_t steps[] = {30, 60, 120, 240, 480, 960};
    int64_t base = 240;
    if (gridType >= 0 && gridType <= 5) base = steps[gridType];
    if (gridType == 6) base = barTicks(barNumerator, barDenominator);
    if (dotted)
        base = base * 3 / 2;
    else if (triplet)
        base = base * 2 / 3;
    return saturate(base);
}

int32_t CSnap::snapDown(int32_t tick) {
    const int64_t grid = enabled ? gridTicks() : 1;
    return saturate(floorDiv(tick, grid) * grid);
}
