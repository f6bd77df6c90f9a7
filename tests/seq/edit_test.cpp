#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/song.h"
// After the engine headers: the dump walks group channels.
#include "model_dump.h"

namespace {

using songtest::Song;

// Runs engine cycles on a thread of its own, as an audio device would, until stopped.
class AudioThread {
public:
    explicit AudioThread(Song& song) : thread_([this, &song] {
        while (running_.load(std::memory_order_acquire)) {
            song.engine.runCycle(256);
            std::this_thread::yield();
        }
    }) {}
    ~AudioThread() {
        running_.store(false, std::memory_order_release);
        thread_.join();
    }

private:
    std::atomic<bool> running_{true};
    std::thread thread_;
};

void waitForQueue(CQV& engine, bool audioRuns) {
    while (engine.deferred->count() > 0) {
        if (audioRuns) std::this_thread::yield();
        else engine.guiTick();
    }
}

// Edits of every kind the song takes, each as one step: new parts, a part moved to another track, a
// part taken out, a part's content swapped for an edited copy, and a value change.
void makeEdits(Song& song, bool audioRuns) {
    CQV& engine = song.engine;
    for (int i = 0; i < 6; ++i) {
        CUndo* step = beginUndo(engine, "Add part", song.seq, 0);
        auto* part = new CMIDIPart();
        part->start = 960 * i;
        part->length = 1920;
        Song::addNote(*part, 120, static_cast<uint8_t>(60 + i), 480);
        part->songTrack = &song.songTrack(i % 2);
        insertItem(*step, part, song.songTrack(i % 2).parts, -1);
        engine.postUndo(step, false);
        waitForQueue(engine, audioRuns);
    }
    CPart* moved = song.songTrack(0).parts.getAt(0);
    CUndo* move = beginUndo(engine, "Move part", song.seq, 0);
    removeItem(*move, moved, &song.songTrack(0).parts, &song.songTrack(1).parts, 0);
    engine.postUndo(move, false);
    waitForQueue(engine, audioRuns);

    CUndo* remove = beginUndo(engine, "Delete part", song.seq, 0);
    removeItem(*remove, song.songTrack(1).parts.getAt(1), &song.songTrack(1).parts, nullptr, 1);
    engine.postUndo(remove, false);
    waitForQueue(engine, audioRuns);

    CPart* edited = song.songTrack(0).parts.getAt(0);
    CPart* copy = edited->clone(0);
    Song::addNote(*copy, 700, 72, 100);
    CUndo* swap = beginUndo(engine, "Edit notes", song.seq, 0);
    swapPart(*swap, edited, copy);
    engine.postUndo(swap, false);
    waitForQueue(engine, audioRuns);

    CUndo* transpose = beginUndo(engine, "Transpose", song.seq, 0);
    changeWord(*transpose, &song.seq->tracks.getAt(0)->transpose, 5);
    engine.postUndo(transpose, false);
    waitForQueue(engine, audioRuns);
}

void undoAndRedoRestoreTheModel(bool audioRuns) {
    Song song(48000.0f, 120.0f, 2);
    song.engine.setLoop(true);
    song.engine.start();
    const std::string before = modeldump::dump(*song.seq);
    std::string after;
    int steps = 0;
    {
        std::unique_ptr<AudioThread> audio = audioRuns ? std::make_unique<AudioThread>(song) : nullptr;
        if (!audioRuns) song.engine.guiTick();
        makeEdits(song, audioRuns);
        steps = song.engine.undoSteps.count();
        waitForQueue(song.engine, audioRuns);
    }
    after = modeldump::dump(*song.seq);
    ASSERT_NE(before, after);
    {
        std::unique_ptr<AudioThread> audio = audioRuns ? std::make_unique<AudioThread>(song) : nullptr;
        for (int i = 0; i < steps; ++i) {
            song.engine.undo();
            waitForQueue(song.engine, audioRuns);
        }
    }
    EXPECT_EQ(modeldump::dump(*song.seq), before);
    {
        std::unique_ptr<AudioThread> audio = audioRuns ? std::make_unique<AudioThread>(song) : nullptr;
        for (int i = 0; i < steps; ++i) {
            song.engine.redo();
            waitForQueue(song.engine, audioRuns);
        }
    }
    EXPECT_EQ(modeldump::dump(*song.seq), after);
}

}  // namespace

TEST(SongEdit, UndoThenRedoOfEveryKindOfStepRestoresTheModelWithoutAudio) { undoAndRedoRestoreTheModel(false); }

TEST(SongEdit, UndoThenRedoOfEveryKindOfStepRestoresTheModelWhileCyclesRun) { undoAndRedoRestoreTheModel(true); }
