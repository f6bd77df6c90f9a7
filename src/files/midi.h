#pragma once
// Standard MIDI files. Import turns every track chunk into a MIDI part on a track of its own, with the
// file's tempo and time signature events as parts of the arrangement; export writes the arrangement as
// a format 1 file at 960 ticks to the quarter note, the sequencer's own resolution.
//
// Files are not trusted: every read is checked against the end of its chunk and of the file, so a
// truncated or mislabelled file loads what it holds up to the damage and never reads past its bytes.

#include <cstdint>
#include <span>
#include <vector>

#include "core/string.h"
#include "files/damage.h"

class CMIDIPart;
class CSeq;
class CSongTrack;
class CTrack;
class CUndo;

namespace files {

struct MidiImport {
    bool isMidi = false;     // the file began with "MThd"
    bool complete = false;   // read to its end without a fatal error
    int32_t format = 0;
    int32_t division = 0;
    std::vector<CTrack*> newTracks;    // made by this import, in file order
    std::vector<CMIDIPart*> newParts;  // one for each chunk that had channel events
    DamageReport damage;               // what a damaged file lost
};

// Reads the file at `path` into the current arrangement. `songTrack`, when it holds no parts, is the
// first target track. With an undo step, every new object enters through it; without one, at once (the
// engine must not be running then). Parts start at `startTick`.
MidiImport importMIDI(CSeq& seq, CSongTrack* songTrack, const CString& path, CUndo* undo, int32_t startTick);
// The same from bytes already in memory; `label` stands for the path in messages.
MidiImport importMIDI(CSeq& seq, CSongTrack* songTrack, std::span<const uint8_t> bytes, CUndo* undo,
                      int32_t startTick, const CString& label);

// The current arrangement as a format 1 file: the tempo track, the time signature track, then one chunk
// for each instrument or drum track that is heard. With the loop on, only the loop range, moved to 0.
std::vector<uint8_t> exportMIDIBytes(const CSeq& seq);
// Writes them beside `path` and renames over it; false when the file could not be written.
bool exportMIDI(const CSeq& seq, const CString& path);

}  // namespace files
