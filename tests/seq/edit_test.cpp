#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "model_dump.h"
#include "support/song.h"

namespace {

using songtest::Song;

// Runs `work` with engine cycles on a thread of their own, as an audio device would, or with none; each
// queued step is waited for: applied by the audio thread, or by the GUI timer's tick.
void withCycles(Song& song, bool audioRuns, const std::function<void(const std::function<void()>&)>& work) {
    std::atomic<bool> running{true};
    std::thread audio;
    if (audioRuns)
        audio = std::thread([&] {
            while (running.load(std::memory_order_acquire)) {
                song.engine.runCycle(256);
                std::this_thread::yield();
            }
        });
    work([&] {
        while (song.engine.deferred->count() > 0) audioRuns ? std::this_thread::yield() : song.engine.guiTick();
    });
    running.store(false, std::memory_order_release);
    if (audio.joinable()) audio.join();
}

// Edits of every kind the song takes, each as one step: new parts, a part moved to another track, a
// part taken out, a part's content swapped for an edited copy, and a value change.
void makeEdits(Song& song, const std::function<void()>& wait) {
    CQV& engine = song.engine;
    const auto post = [&](CUndo* step) {
        engine.postUndo(step, false);
        wait();
    };
    for (int i = 0; i < 6; ++i) {
        CUndo* step = beginUndo(engine, "Add part", song.seq, 0);
        auto* part = new CMIDIPart();
        part->start = 960 * i;
        part->length = 1920;
        Song::addNote(*part, 120, static_cast<uint8_t>(60 + i), 480);
        part->songTrack = &song.songTrack(i % 2);
        insertItem(*step, part, song.songTrack(i % 2).parts, -1);
        post(step);
    }
    CUndo* move = beginUndo(engine, "Move part", song.seq, 0);
    removeItem(*move, song.songTrack(0).parts.getAt(0), &song.songTrack(0).parts, &song.songTrack(1).parts, 0);
    post(move);

    CUndo* remove = beginUndo(engine, "Delete part", song.seq, 0);
    removeItem(*remove, song.songTrack(1).parts.getAt(1), &song.songTrack(1).parts, nullptr, 1);
    post(remove);

    CPart* edited = song.songTrack(0).parts.getAt(0);
    CPart* copy = edited->clone(0);
    Song::addNote(*copy, 700, 72, 100);
    CUndo* swap = beginUndo(engine, "Edit notes", song.seq, 0);
    swapPart(*swap, edited, copy);
    post(swap);

    CUndo* transpose = beginUndo(engine, "Transpose", song.seq, 0);
    changeWord(*transpose, &song.seq->tracks.getAt(0)->transpose, 5);
    post(transpose);
}

class SongEdit : public ::testing::TestWithParam<bool> {};

TEST_P(SongEdit, UndoThenRedoOfEveryKindOfStepRestoresTheModel) {
    const bool audioRuns = GetParam();
    Song song(48000.0f, 120.0f, 2);
    song.engine.setLoop(true);
    song.engine.start();
    const std::string before = modeldump::dump(*song.seq);
    withCycles(song, audioRuns, [&](const auto& wait) {
        if (!audioRuns) song.engine.guiTick();
        makeEdits(song, wait);
        wait();
    });
    const std::string after = modeldump::dump(*song.seq);
    ASSERT_NE(before, after);
    const int32_t steps = song.engine.undoSteps.count();
    withCycles(song, audioRuns, [&](const auto& wait) {
        for (int32_t i = 0; i < steps; ++i) {
            song.engine.undo();
            wait();
        }
    });
    EXPECT_EQ(modeldump::dump(*song.seq), before);
    withCycles(song, audioRuns, [&](const auto& wait) {
        for (int32_t i = 0; i < steps; ++i) {
            song.engine.redo();
            wait();
        }
    });
    EXPECT_EQ(modeldump::dump(*song.seq), after);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutAudio, SongEdit, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "WhileCyclesRun" : "WithoutAudio"; });

}  // namespace
