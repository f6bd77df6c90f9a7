#pragma once
// CSeq: the sequencer component. It owns the tracks and the arrangements and, once per cycle, turns the
// song position into events on its tracks' ports. Its terminals are those of its tracks, entered in its
// own lists, so the modular view shows one box with a pair of terminals per track.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "engine/comp.h"
#include "seq/part.h"
#include "seq/song.h"
#include "seq/timeline.h"
#include "seq/track.h"

class CUndo;

// Where an automation lane's target lies, as a project keeps it: four pairs of a list code and an index.
// The first code says what the target is (a component by its list, 4 an insert, 6 an output channel,
// 7 a send); the pairs behind it lead from the target up to its component.
struct AutomationPath {
    uint8_t list[4] = {};
    uint32_t index[4] = {};
};

// Option bytes of the sequencer ("options" block).
namespace seqoption {
constexpr int autoscroll = 0;
constexpr int monitorMode = 5;
constexpr int midiThruMode = 6;
constexpr int liveMode = 20;
constexpr int markerTrack = 23;
constexpr int keepRemix = 26;
constexpr int rewindOnStop = 27;
}  // namespace seqoption

class CSeq : public CComp {
public:
    explicit CSeq(CQV* engine);
    ~CSeq() override;

    void createPorts() override;
    CSeqProg* currentProg() const { return static_cast<CSeqProg*>(programs.getAt(program)); }
    CSeqProg* prog(int32_t index) const { return static_cast<CSeqProg*>(programs.getAt(index)); }

    // Transport and time (the timeline and playback).
    void start() override;
    void stop() override;
    void setPosition(double ticks) override;
    void rewind() override;
    void setLoop(bool on) override;
    bool getLoop() const override;
    void getLoopRange(int32_t& left, int32_t& right) const override;
    void setLoopRange(int32_t a, int32_t b) override;
    double getProgramTime() const;
    double getPosition() const override;
    double getPosition(int32_t mode) const;
    void getTimeSig(int32_t& numerator, int32_t& denominator) const override;
    double getLength() const override;

    void beginCycle(int32_t frames) override;
    void setBlockSize(int32_t frames) override;
    void process(int32_t frames) override;
    CComp* findTrack(const COutputChannel* channel) const override;
    CString channelLabel(const CIO* io) const override;
    // Bit 32: puts the terminals back into track order after tracks came or went.
    void changed(uint32_t flags) override;

    // The track that owns a terminal entered in this sequencer's lists.
    CTrack* trackOf(const CIO* io) const;
    // A new arrangement named "Mix N" with a song track for every track. With an undo step it enters
    // the program list when the step is applied; without one at once.
    CSeqProg* addProg(CUndo* undo = nullptr);
    // Orders the terminal lists like the tracks by relinking cells, so it may run on the audio thread.
    void sortTerminals();

    // The song as the project file keeps it inside the sequencer's component block.
    void save(CStream& stream) override;
    // Replaces the whole song. Every block is left at its declared end ("tempo" excepted, which
    // declares more than it holds); a damaged block keeps what was read before the damage.
    void load(CStream& stream, int32_t end) override;
    // Automation targets may lie in components loaded after the sequencer: once the engine's lists are
    // complete, the paths read by load become pointers.
    void resolveAutomationTargets();
    // What the last load lost, one line for the user each: tracks, parts and events cut or dropped.
    std::vector<std::string> loadDamage;

    TList<CTrack> tracks;        // owned
    TList<CPart> ghostSources;   // owned; hidden sources of ghost parts, never played
    // Bytes 8..11 hold the track list width, 64.0f little-endian; byte 27 is "Rewind on stop", on.
    uint8_t options[32] = {1, 1, 1, 0, 1, 2, 1, 1, 0x00, 0x00, 0x80, 0x42, 0, 0, 0, 0,
                           0, 0, 0, 0, 0, 0, 0, 0,    0,    0,    0,    1,    0, 0, 0, 0};
    int32_t noteLength = 240;
    int32_t noteVelocity = 100;
    int32_t sync = 0;
    int32_t mixerView = 4;
    CSnap snap;

    // Transport state.
    std::atomic<int32_t> playing{0};
    CSeqProg* playingProg = nullptr;
    double playStart = 0.0;
    double runningTicks = 0.0;
    uint8_t recording = 0;
    uint8_t recordArmed = 1;

private:
    void runProg(CSeqProg& prog, int32_t frames);
    std::vector<std::pair<CSubTrack*, AutomationPath>> loadedTargets_;
    void startProg(CSeqProg& prog);
};

// Lets createComp make a sequencer for its type number.
void registerSequencerTypes();

// The default name for a new track of a type: the word and the smallest free number from 1.
CString trackName(const CSeq& seq, int32_t type);
// Title of the undo step that adds a track of a type.
CString addTrackTitle(int32_t type);
// Makes a track at `index` (negative or beyond the end: last) with a song track in every arrangement.
// With an undo step, everything enters the model through the step, and a new instrument or audio track
// is wired to the first MIDI or audio devices; without one (loading), the track enters at once and
// unwired.
CTrack* addTrack(CSeq& seq, int32_t type, CUndo* undo, int32_t index);
// Length of a part as played: a stored 0 reads as 960; a single-clip audio part follows its audio.
int32_t partPlayLength(const CSeq& seq, CPart& part);
// Duplicates a part, as an independent copy or as a ghost sharing the same content.
CPart* makeGhost(CSeq& seq, CPart& part, bool asGhost);
// Event edit: `copy` is a plain clone of the part's content, edited by the caller. The contents are
// exchanged at once (the part plays the edit; `copy` keeps the old chains, which play cursors may still
// point into) and the step keeps `copy` to exchange them again on undo and redo.
void swapPart(CUndo& undo, CPart* part, CPart* copy);
