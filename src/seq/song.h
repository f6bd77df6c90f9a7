#pragma once
// Arrangements and the meeting of a track with an arrangement.
//
// A CSeqProg ("Mix" to the user) is one arrangement with its own transport position, locators and
// timeline lists. A CSongTrack is one track in one arrangement: its parts and its play state, kept
// inline so that the cycle never allocates.

#include <atomic>
#include <cstdint>

#include "core/list.h"
#include "core/object.h"
#include "engine/midi.h"
#include "seq/part.h"

class CSeq;
class CSeqProg;
class CTrack;

namespace songflag {
constexpr uint32_t resync = 0x40;
constexpr uint32_t flush = 0x80;
constexpr uint32_t audible = 0x100;
constexpr uint32_t chase = 0x200;
}  // namespace songflag

class CSongTrack : public CObject {
public:
    CSongTrack(CSeqProg* prog, CTrack* track);
    ~CSongTrack() override;

    void raiseFlags(uint32_t bits) { flags.fetch_or(bits, std::memory_order_relaxed); }
    bool takeFlag(uint32_t bit) { return (flags.fetch_and(~bit, std::memory_order_relaxed) & bit) != 0; }
    bool hasFlag(uint32_t bit) const { return (flags.load(std::memory_order_relaxed) & bit) != 0; }

    CMIDIQ eventQueue;
    CMIDIQ noteOffQueue;  // frames are ticks from the head of the next cycle
    CMIDIQ auxQueue;
    CSeqProg* prog;
    CTrack* track;
    TList<CPart> parts;  // sorted by start, owned
    TList<CObject> freezeItems;
    double position = 0.0;
};

class CSeqProg : public CObject {
public:
    explicit CSeqProg(CSeq* seq);
    ~CSeqProg() override;

    CSongTrack* songTrackOf(const CTrack* track) const;

    CSeq* seq;
    std::atomic<double> position{0.0};
    double lastPlayPosition = 0.0;
    std::atomic<double> previousPosition{0.0};
    std::atomic<int32_t> samplePosition{0};
    uint8_t loopOn = 1;
    int32_t leftLocator = 0;
    int32_t rightLocator = 3840;
    std::atomic<uint8_t> playing{0};
    std::atomic<uint8_t> stopRequest{0};
    uint8_t wrapEnabled = 0;
    CMarkerPart* nextMarker = nullptr;
    CMarkerPart* currentMarker = nullptr;
    uint8_t soloActive = 0;
    TList<CSongTrack> songTracks;     // owned, in the order of the sequencer's tracks
    TList<CMarkerPart> markers;       // owned, rising start
    TList<CTimesigPart> signatures;   // owned, rising start
    TList<CTempoPart> tempos;         // owned, rising start
};
