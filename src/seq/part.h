#pragma once
// Parts: everything on the timeline, and the event records inside them.
//
// A part's events are a singly linked chain in time order. Each event stores its distance in ticks from
// the one before (the first: from tick 0 of the part's content), so moving a part or changing its offset
// touches one field, and a play cursor waits on its own pointer. A ghost part shares the chains of a
// hidden source part; code reaches events only through getEvents and getAutomation, never `events`.

#include <cstdint>

#include "core/object.h"

class CSample;
class CSeq;
class CSongTrack;
class CSubTrack;

// One quarter note.
constexpr int32_t ticksPerQuarter = 960;
// The furthest tick a file may place anything at, and the longest a chain of events may run: playback
// adds a part's start, its offset and the deltas of a chain in 32 bits, and with each of them within
// this bound (an offset within it either way) every such sum stays in range. 2^29 ticks is 37 hours
// at the fastest tempo.
constexpr int32_t maxSongTick = 1 << 29;
constexpr int32_t automationSlots = 64;
constexpr int32_t maxCursors = automationSlots + 1;

// Common head of every event record.
struct CEventRec {
    virtual ~CEventRec() = default;
    virtual CEventRec* clone() const = 0;

    uint32_t delta = 0;  // ticks since the previous event of the chain
    uint8_t flags = 0;   // bit 0: selected in an editor; bit 1: marked by an edit in progress
    CEventRec* next = nullptr;
};

template <class Derived>
struct CEventRecOf : CEventRec {
    CEventRec* clone() const override {
        auto* copy = new Derived(static_cast<const Derived&>(*this));
        copy->next = nullptr;
        return copy;
    }
};

struct CMIDIEventRec : CEventRecOf<CMIDIEventRec> {
    uint32_t message = 0;  // status bits 0-7, data 1 bits 8-15, data 2 bits 16-23
    int32_t duration = 240;
    bool isNoteOn() const { return (message & 0xF0) == 0x90 && ((message >> 16) & 0xFF) != 0; }
};

struct CDrumEventRec : CEventRecOf<CDrumEventRec> {
    int32_t pad = 0;
    int32_t duration = 240;
    float velocity = 1.0f;
    float pan = 0.0f;
    float pitch = 1.0f;
};

struct CAudioEventRec : CEventRecOf<CAudioEventRec> {
    CSample* sample = nullptr;  // not owned
    float gain = 1.0f;
    float spare = 0.0f;
    int32_t mode = 0;
    int32_t reverse = 0;
    int32_t startFrame = 0;
    int32_t endFrame = 0;
    int32_t clipTicks = 960;
    int32_t beats = 960;
    int32_t pitch = 0;
    float fine = 0.0f;
    int32_t lane = -1;
    float fadeInMs = 0.0f;
    float fadeInCurve = 0.0f;
    float fadeOutMs = 0.0f;
    float fadeOutCurve = 0.0f;
};

struct CAutomationRec : CEventRecOf<CAutomationRec> {
    float value = 0.0f;
    int32_t shape = 0;  // 0 curve towards the next point, 1 step
    float curve = 0.0f;
};

enum class CursorKind : int32_t { midi = 0, audio = 1, drum = 2, automation = 3 };

// Play position inside one chain of one part.
struct CPartCursor {
    CSubTrack* subTrack = nullptr;
    int32_t targetParam = 0;
    CursorKind kind = CursorKind::midi;
    int32_t tick = 0;  // absolute tick of the previous event
    int32_t automationParam = 0;
    int32_t interpolating = 0;  // 0 between two points, 2 before the first
    void* targetObject = nullptr;
    float fromValue = 0.0f, toValue = 0.0f;
    double segmentLength = 0.0;
    float toCurve = 0.0f;
    double segmentPos = 0.0;
    float lastValue = -1.0f;
    CEventRec* event = nullptr;
};

enum PartKind : int32_t {
    partMIDI = 1,
    partAudio = 2,
    partDrum = 3,
    partMarker = 4,
    partTimesig = 5,
    partTempo = 6,
};

namespace partflag {
constexpr uint32_t selected = 1;
constexpr uint32_t muted = 4;
}  // namespace partflag

class CPart : public CObject {
public:
    explicit CPart(int32_t partKind, int32_t defaultLength = 3840);
    ~CPart() override;

    CString getName() const override;
    virtual CEventRec* getEvents() const;
    virtual CEventRec* getAutomation(uint32_t slot) const;
    // A new part of the same class sharing placement and looks; content copied unless this is a ghost.
    virtual CPart* clone(int32_t shallow) const;
    // Exchanges the event chain and all automation chains with another part.
    virtual void swapContents(CPart* other);

    // Length as played and drawn: a stored 0 reads as one quarter note.
    int32_t effectiveLength() const { return length == 0 ? ticksPerQuarter : length; }
    int32_t end() const { return start + effectiveLength(); }
    bool isGhost() const { return ghostSource != nullptr; }
    // The part that really holds the chains: the ghost's source, or this part.
    CPart* contentHolder() { return ghostSource ? ghostSource : this; }
    void deleteContent();

    int32_t color = -1;
    CPart* ghostSource = nullptr;
    CEventRec* events = nullptr;
    CEventRec* automation[automationSlots] = {};
    int32_t start = 0;
    int32_t offset = 0;
    int32_t length;
    int32_t cursorCount = 0;
    CPartCursor cursors[maxCursors];
    CSongTrack* songTrack = nullptr;

protected:
    // Copies the fields every kind shares into a fresh part of the same kind.
    void copyCommonInto(CPart& copy, int32_t shallow) const;
    virtual CPart* makeEmpty() const = 0;
};

class CMIDIPart : public CPart {
public:
    CMIDIPart() : CPart(partMIDI) { name = "midi"; }

protected:
    CPart* makeEmpty() const override { return new CMIDIPart(); }
};

class CAudioPart : public CPart {
public:
    CAudioPart() : CPart(partAudio) { name = "audio"; }
    int32_t multiClip = 0;
    int32_t audioChannels = 1;

protected:
    CPart* makeEmpty() const override;
};

class CDrumPart : public CPart {
public:
    CDrumPart() : CPart(partDrum) { name = "drum"; }

protected:
    CPart* makeEmpty() const override { return new CDrumPart(); }
};

class CMarkerPart : public CPart {
public:
    CMarkerPart() : CPart(partMarker, ticksPerQuarter) { name = "marker"; }
    uint8_t reserved[2] = {0, 0};

protected:
    CPart* makeEmpty() const override;
};

class CTimesigPart : public CPart {
public:
    CTimesigPart() : CPart(partTimesig, ticksPerQuarter) {}
    int32_t numerator = 4;
    int32_t denominator = 4;
    float referenceTempo = 120.0f;

protected:
    CPart* makeEmpty() const override;
};

class CTempoPart : public CPart {
public:
    CTempoPart() : CPart(partTempo, ticksPerQuarter) { name = "tempo"; }
    float tempo = 120.0f;

protected:
    CPart* makeEmpty() const override;
};

// Chain operations. `tick` is an absolute tick of the part's content.
void insertEvent(CPart& part, int32_t tick, CEventRec* event);
void appendEvent(CPart& part, CEventRec* event);
void copyAutomation(const CPart& source, CPart& destination);
void deleteChain(CEventRec* head);
CEventRec* copyChain(const CEventRec* head);
