#pragma once
// Musical time: conversions between ticks and samples through the tempo map, the beat and bar grid of
// the signature map, the snap grid and the position displays. One quarter note is 960 ticks; at tempo
// bpm there are bpm * 16 ticks a second.

#include <cstdint>

#include "core/list.h"
#include "core/object.h"

class CSeqProg;

// Samples that `tickCount` ticks from `startTick` last, through the tempo points of `prog`; `tempo` is
// the tempo in force before the first point. Without an arrangement the tempo holds throughout.
double ticksToSamples(const CSeqProg* prog, float tempo, int32_t startTick, int32_t tickCount, int32_t sampleRate);
// The inverse, in whole ticks, truncating at each tempo span as the design of part lengths requires.
double samplesToTicks(const CSeqProg* prog, float tempo, double startTick, double samples, int32_t sampleRate);
// Rounds a tick to the nearest beat of the signature in force there.
int32_t snapToBeat(const CSeqProg* prog, int32_t tick, int32_t defaultNumerator, int32_t defaultDenominator);
// Ticks of one beat of a denominator: (960 / d) * 4, integer division first; a 0 reads as 4.
int32_t beatTicks(int32_t denominator);
// The tempo the next cycle takes over: the last point passed or reached within one block, limited to
// 10..250; `nextTempo` when no point applies.
float followTempo(const CSeqProg& prog, double position, float tempo, float nextTempo, double sampleRate,
                  int32_t blockFrames);
// Index at which a point at `tick` goes into a list kept in rising start order.
int32_t insertIndexFor(const CList& points, int32_t tick);

struct BarPosition {
    int32_t bar;   // from 1, counted on across signature changes
    int32_t beat;  // from 1
    int32_t tick;  // inside the beat
};
// Bar and beat of a tick through the signature map (the ruler's numbering).
BarPosition barAt(const CSeqProg* prog, int32_t tick, int32_t defaultNumerator, int32_t defaultDenominator);

// Position display texts: "bar.beat.tick" with the default signature, and "min:sec:ms".
CString formatBars(double position, int32_t numerator, int32_t denominator);
CString formatTime(int32_t samplePosition, int32_t sampleRate);

// Something that can refresh a snap grid's bar length before it is used (the view's current bar).
class CBarSource {
public:
    virtual ~CBarSource() = default;
    virtual void refreshBar(int32_t& numerator, int32_t& denominator) = 0;
};

class CSnap : public CObject {
public:
    int32_t gridTicks();
    // Rounds down to the grid when snapping is on.
    int32_t snapDown(int32_t tick);

    int32_t gridType = 3;  // 0..5: 30, 60, 120, 240, 480, 960 ticks; 6: one bar
    int32_t barNumerator = 4;
    int32_t barDenominator = 4;
    uint8_t enabled = 1;
    uint8_t triplet = 0;
    uint8_t dotted = 0;
    uint8_t relative = 0;
    CBarSource* barSource = nullptr;
};
