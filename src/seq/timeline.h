#pragma once
// Musical time: conversions between ticks and samples through the tempo map, the beat and bar grid of
// the signature map, the snap grid and the position displays. One quarter note is 960 ticks; at tempo
// bpm there are bpm * 16 ticks a second.
//
// Values that came from a file are not checked on load, so nothing here divides by them: a numerator
// below 1 or a denominator outside 1..960 reads as 4, a tempo point at or below 0 BPM as 10 BPM.

#include <cstdint>

#include "core/list.h"
#include "core/object.h"
#include "core/string.h"

class CSeqProg;

// Samples that `tickCount` ticks from `startTick` last, through the tempo points of `prog`; `tempo` is
// the tempo in force before the first point. Without an arrangement the tempo holds throughout.
double ticksToSamples(const CSeqProg* prog, float tempo, int32_t startTick, int32_t tickCount,
                      int32_t sampleRate);
// The inverse, in whole ticks, truncating at each tempo span; the lengths of parts derived from their
// audio depend on exactly these truncations. Each tempo point crossed may cost up to one tick against
// the exact value, so locating uses frameToTick instead.
double samplesToTicks(const CSeqProg* prog, float tempo, double startTick, double samples,
                      int32_t sampleRate);
// Exact, unrounded mapping between a song position in ticks and the sample frame at which it sounds,
// both counted from tick 0 (frame 0). Negative inputs read as 0. tickToFrame agrees with
// ticksToSamples(prog, tempo, 0, tick, sampleRate) at whole ticks.
double tickToFrame(const CSeqProg* prog, float tempo, double tick, int32_t sampleRate);
double frameToTick(const CSeqProg* prog, float tempo, double frame, int32_t sampleRate);
// Rounds a tick to the nearest beat of the signature in force there, counted from that signature's start.
int32_t snapToBeat(const CSeqProg* prog, int32_t tick, int32_t defaultNumerator, int32_t defaultDenominator);
// Ticks of one beat of a denominator: (960 / d) * 4, integer division first; a denominator outside
// 1..960 (which would give no beat at all) reads as 4.
int32_t beatTicks(int32_t denominator);
// The tempo the next cycle takes over: the last point passed or reached within one block, limited to
// 10..250; `nextTempo` when no point applies. Runs in the audio cycle: walks the list, allocates nothing.
float followTempo(const CSeqProg& prog, double position, float tempo, float nextTempo, double sampleRate,
                  int32_t blockFrames);
// Index at which a point at `tick` goes into a list of parts kept in rising start order: before the
// first one at or behind `tick`, or at the end.
int32_t insertIndexFor(const CList& points, int32_t tick);

struct BarPosition {
    int32_t bar;  // from 1, counted on across signature changes
    int32_t beat; // from 1
    int32_t tick; // inside the beat
};
// Bar and beat of a tick through the signature map (the ruler's numbering). Every signature point
// starts a new bar; a bar cut short by the next point still counts. Ticks before 0 count back from bar 1.
BarPosition barAt(const CSeqProg* prog, int32_t tick, int32_t defaultNumerator, int32_t defaultDenominator);

// Position display texts: "bar.beat.tick" with the default signature only (the third figure is the
// tick inside the quarter note), and "min:sec:ms" of a sample position.
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
    // Length of one grid step in ticks, never below 1.
    int32_t gridTicks();
    // Rounds down (towards minus infinity) to the grid when snapping is on.
    int32_t snapDown(int32_t tick);

    int32_t gridType = 3; // 0..5: 30, 60, 120, 240, 480, 960 ticks; 6: one bar; anything else 240
    int32_t barNumerator = 4;
    int32_t barDenominator = 4;
    uint8_t enabled = 1;
    uint8_t triplet = 0;
    uint8_t dotted = 0;
    uint8_t relative = 0;
    CBarSource* barSource = nullptr;
};
