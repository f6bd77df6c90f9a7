// Damaged projects played: the reader, then the transport started just before a short loop at the first
// part of the song, and enough cycles that the sequencer sends the part's events and wraps the loop
// several times. Values the reader lets through out of range show here, in playback's arithmetic.
#include <algorithm>

#include "project_fuzz.h"
#include "seq/seq.h"

namespace {

constexpr int32_t cycles = 16;
constexpr int32_t loopWraps = 3;

CSeq* sequencerOf(const CQV& engine) {
    for (CComp* comp : engine.comps)
        if (comp->isSequencer()) return static_cast<CSeq*>(comp);
    return nullptr;
}

int32_t firstPartStart(const CSeqProg& prog) {
    int32_t first = maxSongTick;
    for (const CSongTrack* songTrack : prog.songTracks)
        for (const CPart* part : songTrack->parts) first = std::min(first, part->start);
    return first == maxSongTick ? 0 : first;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CQV& engine = fuzzing::fuzzEngine();
    files::DamageReport damage;
    if (fuzzing::readInput(engine, data, size, damage) != files::LoadOutcome::loaded) return 0;
    CSeq* seq = sequencerOf(engine);
    const CSeqProg* prog = seq ? seq->currentProg() : nullptr;
    if (!prog) return 0;
    // The file's own loop plays when the cycles cross it; otherwise one at the first part that they
    // cross a few times at the project's tempo.
    const double played = cycles * fuzzing::fuzzBlock * ticksPerFrame(engine.bpm.load(), fuzzing::fuzzRate);
    const int32_t loopTicks = std::max(static_cast<int32_t>(played / loopWraps), 1);
    int32_t left = prog->leftLocator, right = prog->rightLocator;
    if (left >= right || right - left > loopTicks) {
        left = firstPartStart(*prog);
        right = left + loopTicks;
    }
    seq->setLoopRange(left, right);
    engine.setLoop(true);
    engine.setPosition(std::max(left - loopTicks / 2, 0));
    engine.start();
    for (int32_t cycle = 0; cycle < cycles; ++cycle) engine.runCycle(fuzzing::fuzzBlock);
    engine.stop();
    engine.runCycle(fuzzing::fuzzBlock);
    return 0;
}
