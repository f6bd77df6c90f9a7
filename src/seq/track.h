#pragma once
// Tracks. A CTrack is the same in every arrangement and holds what the track sounds like. It derives
// from CComp for its ports, channels, inserts and virtual operations, but it is not a node of the graph:
// the sequencer owns it, enters its terminals in its own lists, and runs it inside its own cycle.
//
// Terminal ownership: a track's terminals name the sequencer as their owner, and the sequencer's lists
// (or, until an undo step has put them there, the step's items) delete them. The track's own terminal
// lists are views of the same objects, so that its strip and its ports can be reached from the track.
// Only a track made without a sequencer owns its terminals itself.

#include <cstdint>

#include "engine/comp.h"

class CSeq;
class CSample;
struct CEventRec;

enum TrackType : int32_t {
    trackFolder = 1,
    trackInstrument = 2,
    trackAudio = 3,
    trackDrum = 5,
};

namespace trackflag {
constexpr uint32_t armed = 1;
constexpr uint32_t expanded = 2;
constexpr uint32_t muted = 4;
constexpr uint32_t solo = 8;
constexpr uint32_t importSelected = 0x400;
}  // namespace trackflag

enum SubTrackKind : int32_t {
    laneControlChange = -1,
    laneChannelPressure = -2,
    lanePitchWheel = -3,
    laneAftertouch = -4,
    laneProgramChange = -5,
    laneVelocity = -6,
    laneAutomation = -102,
};

enum AutomationType : int32_t { automateParameter = 1, automateController = 2, automatePitchWheel = 3 };

// One lane under a track: a view of a class of events, or an automation lane.
class CSubTrack : public CObject {
public:
    explicit CSubTrack(int32_t laneKind) : CObject(0, 2), laneKind(laneKind) {}

    uint8_t visible = 1;
    int32_t laneKind;
    int32_t height = 40;
    void* target = nullptr;  // automation: the component, output channel or send driven
    int32_t controller = 0;
    int32_t slot = -1;
    float lastValue = -1.0f;
    int32_t automationType = automateParameter;
    uint8_t pending = 0;
    float pendingValue = 0.0f;
    CEventRec* previousPoint = nullptr;
    CEventRec* nextPoint = nullptr;
    uint8_t writing = 0;
    uint8_t disabled = 0;
};

// The word a track type's default name is made of: "folder", "instrument", "audio", "drum", "track".
CString trackTypeWord(int32_t type);

class CTrack : public CComp {
public:
    static constexpr int32_t folderHeight = 21;
    static constexpr int32_t defaultHeight = 40;
    static constexpr int32_t defaultNoteHeight = 8;

    CTrack(CQV* engine, CSeq* seq, int32_t type);
    ~CTrack() override;

    // The terminals of the type; their owner is the sequencer when there is one.
    void createPorts() override;
    bool isMuted() const { return (flags.load(std::memory_order_relaxed) & trackflag::muted) != 0; }
    bool isSolo() const { return (flags.load(std::memory_order_relaxed) & trackflag::solo) != 0; }
    bool isArmed() const { return (flags.load(std::memory_order_relaxed) & trackflag::armed) != 0; }
    // Target of automation and of held notes: the output port, or for audio tracks the input port so
    // that automation reaches the inserts of the track's own channel. A drum track has no output port
    // and takes its input port as well; a folder has none.
    CMIDIQ* automationPort() const;

    CSeq* seq;
    int32_t type;
    int32_t color = -1;
    int16_t channel = 0;
    int32_t transpose = 0;
    int32_t activeTranspose = 0;
    int32_t inputSens = 100;
    int32_t outputChannelHint = 0;
    uint8_t recordChannels = 2;
    int32_t expandedHeight = 256;
    int32_t parentIndexHint = -1;
    int32_t noteHeight = 8;
    CTrack* parentFolder = nullptr;
    uint8_t monitor = 0;
    uint8_t autoColor = 0;
    uint8_t recording = 0;
    TList<CSubTrack> subTracks;  // owned
    float grooveSwing = 0.0f;
    float grooveAmount = 0.0f;
    float grooveStrength = 0.0f;
    int32_t grooveSteps = 2;
    int32_t grooveGrid = 240;
    float grooveValues[64] = {0.0f, 0.33f};
    uint32_t heldEvents[128] = {};
    uint8_t keyTarget[128] = {};
    uint8_t keySounding[128] = {};
    uint8_t keyChannel = 0;
};
