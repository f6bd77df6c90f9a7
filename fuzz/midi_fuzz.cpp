// Standard MIDI files from untrusted bytes: imported at once, then again through an undo step that is
// applied and undone or exported and the export imported again, and the song played for a few blocks.

#include <cstdint>
#include <span>

#include "engine/engine.h"
#include "engine/undo.h"
#include "files/midi.h"
#include "seq/seq.h"

namespace {

CSeq& addSequencer(CQV& engine) {
    auto* seq = new CSeq(&engine);
    seq->createPorts();
    engine.addComp(seq);
    return *seq;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const uint8_t> bytes(data, size);
    CQV engine(EngineOptions{false, 1});
    engine.setSampleRate(48000.0);
    CSeq& seq = addSequencer(engine);
    const files::MidiImport first = files::importMIDI(seq, nullptr, bytes, nullptr, 0, "fuzz.mid");

    // A second import, through an undo step, or the export imported again: each makes every track anew,
    // which is most of an input's time, so the length's parity picks one and the fuzzer reaches both.
    CUndo* step = nullptr;
    if (size & 1) {
        CSongTrack* target = seq.currentProg()->songTracks.getAt(0);
        step = beginUndo(engine, "Import", &seq, 16);
        files::importMIDI(seq, target, bytes, step, 1920, "fuzz.mid");
        step->apply(engine);
        step->revert(engine);
        step->reapply(engine);
    } else {
        CSeq& copy = addSequencer(engine);
        files::importMIDI(copy, nullptr, files::exportMIDIBytes(seq), nullptr, 0, "export.mid");
    }

    // Playback counts the frames to a coming event in 32 bits, which a song of more than about twelve
    // hours at the slowest tempo overflows; such files still import and export above.
    constexpr double playableTicks = 1 << 22;
    if (first.isMidi && seq.getLength() < playableTicks) {
        engine.setPosition(0);
        engine.start();
        for (int32_t block = 0; block < 4; ++block) engine.runCycle(512);
        engine.stop();
    }
    delete step;
    return 0;
}
